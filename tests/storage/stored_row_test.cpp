#include "storage/storage_load.h"
#include "support/grouped_digits.h"

namespace {

using namespace ConfSave;
using namespace test;

TEST_F(StorageLoad, RowIsStampedAndUnpacked) {
  put(row(1));
  const GroupedDigits grouped;
  expect_logged({kLoadBegins, sizes, kOneChange}, [this] {
    rearrange("update Config set load_time = 2000");
    load();
    EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
    EXPECT_EQ(statements(), (Texts{kSelectStored, kStampFirst}));
    EXPECT_EQ(stamps(), kStamped);
  });
}

TEST_F(StorageLoad, EveryFileIsRestoredAsItWas) {
  // A full snapshot of the library's own; the journal of the configuration database is never in it.
  empty_directory(config_dir());
  make_configuration();
  storage->Create("weekly", conf_full, kCurrent);
  empty_directory(config_dir());
  empty_directory(etc_dir());
  load();
  EXPECT_EQ(config_files.size(), 30U);
  EXPECT_EQ(files_below(config_dir()), config_files);
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

TEST_F(StorageLoad, IdMayBeLargerThan32Bits) {
  put(row(1));
  put({"daily", kCurrent});
  rearrange(
      "update Config set id = id + 4294967296 where name = 'weekly'; "
      "update Config set id = 1 where name = 'daily'");
  load();
  EXPECT_EQ(statements(), (Texts{kSelectStored, stamp_of("4294967297")}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}, {"4294967297", "<now>"}}));
}

TEST_F(StorageLoad, RefusedStampIsOnlyLogged) {
  put(row(1));
  rearrange("create trigger frozen before update on Config begin select raise(fail, 'frozen'); end");
  expect_logged({kLoadBegins, sizes, says(kLoad, 2, refusal("frozen", kStampFirst, 19), {4}), kNoChange},
                [this] {
                  host.commands.clear();
                  load();
                  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
                });
  EXPECT_EQ(files_below(etc_dir()), etc_files);
  EXPECT_EQ(stamps(), kNotStamped);
}

// The type decides which archives are unpacked

TEST_F(StorageLoad, AnyEtcOfTheCorluTypeIsToleratedAndIgnored) {
  struct Etc {
    const char* value;
    const char* code;
    std::size_t size;
  };
  for (const auto& [value, code, size] : {Etc{"NULL", "5", 0}, Etc{"42", "1", 2}, Etc{"2.5", "2", 3},
                                          Etc{"'text'", "3", 4}, Etc{"''", "3", 0}}) {
    rearrange("delete from Config");
    put(row(3, hex(keybase), value));
    EXPECT_EQ(load_and_keep_archives(), archives(keybase, {})) << value;
    EXPECT_EQ(
        records(),
        (LogRecords{kLoadBegins,
                    says(kCheckColumnType, 4,
                         "Configuration ``weekly'' (version 17264017408) contains column ``etc'' with "
                         "type " +
                             std::string(code) + " (expected 4). ignoring difference",
                         {8, 4, 4}),
                    sizes_record(keybase.size(), size), kOneChange}));
  }
}

TEST_F(StorageLoad, ArchivesAreTheBlobsExceptForTheEtcOfTheCorluType) {
  put(row(1));
  EXPECT_EQ(load_and_keep_archives(), archives(keybase, etc));
  rearrange("update Config set type = 3");
  EXPECT_EQ(load_and_keep_archives(), archives(keybase, {}));
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes, kOneChange}));
}

TEST_F(StorageLoad, TypeIsReadAs32BitsAndUnknownTypesUnpackBothArchives) {
  put(row(1));
  for (const char* type : {"-1", "0", "2", "7"}) {
    rearrange(std::string("update Config set type = ") + type);
    load();
    EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase) << type;
  }
  rearrange("update Config set etc = NULL, type = 4294967299");  // 3, and a bit above.
  load();
  EXPECT_EQ(commands(), kUnpackKeybase);
}

// Several rows

TEST_F(StorageLoad, LastOfSeveralRowsIsUsed) {
  const Bytes other = make_archive(root(), "state");
  put_both(row(1), row(1, hex(other), "x'01'"));
  rearrange("update Config set id = rowid + 10");
  EXPECT_EQ(load_and_keep_archives(), archives(other, {'\1'}));
  expect_effects(kUnpackEtc + kUnpackKeybase, {kSelectStored, stamp_of("12")},
                 {kLoadBegins, sizes, sizes_record(other.size(), 1), kOneChange});
  EXPECT_EQ(stamps(), (Rows{{"11", "NULL"}, {"12", "<now>"}}));
}

TEST_F(StorageLoad, EmptyBlobsOfTheLastRowReplaceEarlierOnes) {
  put_both(row(1), row(1, "x''", "x''"));
  EXPECT_EQ(load_and_keep_archives(), archives({}, {}));
  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes, sizes_record(0, 0), kOneChange}));
}

TEST_F(StorageLoad, LastRowOfTheCorluTypeKeepsTheEtcOfTheRowBefore) {
  put_both(row(1), row(3, "x'02'", "x'03'"));
  EXPECT_EQ(load_and_keep_archives(), archives({'\2'}, etc));
  EXPECT_EQ(commands(), kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes, sizes_record(1, 1), kOneChange}));
}

TEST_F(StorageLoad, StepThatFailsAfterARowKeepsThatRow) {
  put_both(row(1), row(3, "x'02'", "x'03'"));
  interrupt_after_first_row(connection);
  EXPECT_EQ(load_and_keep_archives(), archives(keybase, etc));
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes, kOneChange}));
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}, {"2", "NULL"}}));
}

// Failures after the stamp

TEST_F(StorageLoad, StampStaysWhenTheArchiveIsInvalid) {
  put(row(1, "x'00'", "x'00'"));
  host.on_command = fail_commands("tar xzf ", 7);
  EXPECT_EQ(thrown([this] { load(); }), "ConfSave::XExternalFailure 36: ");
  EXPECT_EQ(commands(), (Texts{kUnpackEtc[0], kUnpackEtc[2]}));
  EXPECT_EQ(stamps(), kStamped);
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes_record(1, 1), kOneChange,
                                   says(kUnpack, 1, "failed to extract files with error code: 7", {4})}));
}

TEST_F(StorageLoad, BlobLargerThanTheMemoryIsNotAnEmptyOne) {
  rearrange(
      "drop table Config; create table Sizes (size); insert into Sizes values (100000000); "
      "create view Config as select 'weekly' as name, 17264017408 as version, "
      "zeroblob(size) as keybase, x'00' as etc, 1 as type, 1 as id from Sizes");
  // Little more memory than SQLite has now.
  const sqlite3_int64 before = sqlite3_hard_heap_limit64(sqlite3_memory_used() + 4000000);
  EXPECT_EQ(thrown([this] { load(); }), "std::bad_alloc: std::bad_alloc");
  sqlite3_hard_heap_limit64(before);
  expect_effects({}, {kSelectStored}, {kLoadBegins});
}

using UnopenedLoad = Gateway;

TEST_F(UnopenedLoad, FindsNothing) {
  setenv("KELMOR_DYNAMIC_DIR", (root() + "/missing").c_str(), 1);
  Storage storage;
  EXPECT_FALSE(storage.opened);
  host.records.clear();
  EXPECT_EQ(thrown([&] { storage.Load("weekly", nullptr, kCurrent, true); }), "ConfSave::XNotFound 0: ");
  EXPECT_EQ(host.records,
            (LogRecords{kLoadBegins, says(kLoad, 2, refusal("out of memory", kSelectStored, 21), {4}),
                        says(kLoad, 1, "SQL error: out of memory. Query: " + kSelectStored)}));
  EXPECT_EQ(host.commands, Texts());
  EXPECT_FALSE(exists(root() + "/missing"));
}

}  // namespace
