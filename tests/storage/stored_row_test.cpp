#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>

#include "storage/storage_load.h"
#include "support/grouped_digits.h"

namespace {

namespace fs = std::filesystem;

using namespace ConfSave;
using namespace test;

TEST_F(StorageLoad, RowIsStampedAndUnpacked) {
  put(row(1));
  const GroupedDigits grouped;  // Statements and records have no digit groups.
  expect_logged({kLoadBegins, sizes, kOneChange}, [this] {
    recorder.clear();
    host.commands.clear();
    load();
    EXPECT_EQ(statements(), (Texts{kSelectStored, kStampFirst}));
    EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  });
  EXPECT_EQ(stamps(), kStamped);
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

TEST_F(StorageLoad, ExistingFilesAreReplacedAndOtherFilesStay) {
  put(row(1));
  write_file(config_dir() + "user/gateway.conf", "changed");
  write_file(config_dir() + "user/config.db-journal", "stale");
  write_file(config_dir() + "own.txt", "not in the archive");
  write_file(etc_dir() + "failover.ini", "changed");
  load();
  const Files restored = files_below(config_dir());
  EXPECT_EQ(restored.at("user/gateway.conf"), config_files.at("user/gateway.conf"));
  EXPECT_EQ(restored.count("user/config.db-journal"), 0U);
  EXPECT_EQ(std::get<0>(restored.at("own.txt")), "not in the archive");
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

TEST_F(StorageLoad, TargetReceivesBothArchives) {
  put(row(1));
  fs::create_directory(root() + "/target");
  const std::string target = root() + "/target/";
  storage->Load("weekly", target.c_str(), kCurrent, true);
  EXPECT_EQ(commands(), unpack_into("<root>/target/") + unpack_into("<root>/target/"));
  const Files restored = files_below(target);
  EXPECT_EQ(restored.at("user/gateway.conf"), config_files.at("user/gateway.conf"));
  EXPECT_EQ(restored.at("failover.ini"), etc_files.at("failover.ini"));
  EXPECT_EQ(files_below(config_dir()), Files());
  EXPECT_EQ(files_below(etc_dir()), Files());
  EXPECT_EQ(stamps(), kStamped);
}

// The stamp

TEST_F(StorageLoad, OnlyTheLoadedRowIsStamped) {
  put({"daily", kCurrent});
  put(row(1));
  put({"weekly", 0});
  load();
  EXPECT_EQ(statements(), (Texts{kSelectStored, stamp_of("2")}));
  EXPECT_EQ(stamps(), (Rows{{"1", "NULL"}, {"2", "<now>"}, {"3", "NULL"}}));
}

TEST_F(StorageLoad, EarlierStampIsReplacedAndListed) {
  RowSpec spec = row(1);
  spec.load_time = "2000";
  put(spec);
  load();
  EXPECT_EQ(stamps(), kStamped);
  const Configs configs = storage->List(0, "", true);
  ASSERT_EQ(configs.size(), 1U);
  EXPECT_GE(configs[0].load_time, started);
  EXPECT_LE(configs[0].load_time, std::time(nullptr));
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

TEST_F(StorageLoad, EveryVersionCanBeLoaded) {
  RowSpec spec = row(3);
  for (const int64 version :
       {int64{0}, std::numeric_limits<int64>::max(), std::numeric_limits<int64>::min()}) {
    spec.version = version;
    put(spec);
    storage->Load("weekly", nullptr, version, true);
  }
  EXPECT_EQ(stamps(), (Rows{{"1", "<now>"}, {"2", "<now>"}, {"3", "<now>"}}));
}

TEST_F(StorageLoad, StampTakesEffectAtTheCommitAndIsUndoneWithoutOne) {
  put(row(1));
  storage->Begin();
  load();
  EXPECT_FALSE(lock_is_free(database()));
  storage.reset();
  EXPECT_EQ(stamps(), kNotStamped);
  EXPECT_EQ(files_below(etc_dir()), etc_files);
  open();
  storage->Begin();
  load();
  storage->Commit();
  EXPECT_EQ(stamps(), kStamped);
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

TEST_F(StorageLoad, ViewIsLoadedWithoutAStamp) {
  rearrange("alter table Config rename to Kept; create view Config as select * from Kept");
  Database(database())
      .run("insert into Kept (name, version, keybase, etc, type) values ('weekly', 17264017408, " +
           hex(keybase) + ", " + hex(etc) + ", 1)");
  load();
  EXPECT_EQ(
      records(),
      (LogRecords{kLoadBegins, sizes,
                  says(kLoad, 2, refusal("cannot modify Config because it is a view", kStampFirst, 1), {4}),
                  kNoChange}));
  EXPECT_EQ(files_below(etc_dir()), etc_files);
}

// The type decides which archives are unpacked

TEST_F(StorageLoad, OfTheCorluTypeOnlyKeybaseIsUnpacked) {
  put(row(3));
  load();
  EXPECT_EQ(commands(), kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes, kOneChange}));
  EXPECT_EQ(files_below(config_dir()).at("user/gateway.conf"), config_files.at("user/gateway.conf"));
  EXPECT_EQ(files_below(etc_dir()), Files());
}

TEST_F(StorageLoad, OfTheCorluTypeAnyEtcIsToleratedAndIgnored) {
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

TEST_F(StorageLoad, ArchivesAreTheBlobsAndOfTheCorluTypeEtcIsEmpty) {
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

TEST_F(StorageLoad, EmptyBlobsAreEmptyArchives) {
  put(row(1, "x''", "x''"));
  EXPECT_EQ(load_and_keep_archives(), archives({}, {}));
  EXPECT_EQ(commands(), kUnpackEtc + kUnpackKeybase);
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes_record(0, 0), kOneChange}));
}

// Several rows

TEST_F(StorageLoad, OfSeveralRowsTheLastIsUsed) {
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
  expect_failure_after_the_stamp("ConfSave::XExternalFailure 36: ", {kUnpackEtc[0], kUnpackEtc[2]});
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes_record(1, 1), kOneChange,
                                   says(kUnpack, 1, "failed to extract files with error code: 7", {4})}));
}

TEST_F(StorageLoad, EmptyKeybaseFailsInTar) {
  put(row(3, "x''", "NULL"));
  expect_failure_after_the_stamp("ConfSave::XExternalFailure 36: ", {kUnpackKeybase[0], kUnpackKeybase[2]});
}

TEST_F(StorageLoad, InvalidKeybaseFailsAfterEtcIsRestored) {
  put(row(1, "x'00'", hex(etc)));
  expect_failure_after_the_stamp("ConfSave::XExternalFailure 36: ",
                                 kUnpackEtc + Texts{kUnpackKeybase[0], kUnpackKeybase[2]});
  EXPECT_EQ(files_below(etc_dir()), etc_files);
  EXPECT_EQ(files_below(config_dir()), Files());
}

TEST_F(StorageLoad, MissingTargetFailsAfterTheStamp) {
  put(row(1));
  expect_failure_after_the_stamp("XTOOStatus 3: No such file or directory", {},
                                 (root() + "/missing/").c_str());
}

TEST_F(StorageLoad, MissingTemporaryDirectoryFailsAfterTheStamp) {
  put(row(1));
  setenv("KELMOR_TEMP_DIR", (root() + "/missing").c_str(), 1);
  expect_failure_after_the_stamp("XTOOStatus 17: No such file or directory", {});
}

TEST_F(StorageLoad, DatabaseFileThatCannotBeDeletedFailsAfterTheStamp) {
  put(row(1));
  fs::create_directory(config_dir() + "user/config.idx");
  expect_failure_after_the_stamp("ConfSave::XExternalFailure 43: ", {});
}

TEST_F(StorageLoad, ExceptionOfTheHostPropagates) {
  put(row(1));
  host.on_command = [this](const std::string&) -> std::optional<int> {
    EXPECT_EQ(temp_files().size(), 2U);
    throw std::runtime_error("the host has enough");
  };
  expect_failure_after_the_stamp("std::runtime_error: the host has enough", {kUnpackEtc[0]});
  EXPECT_EQ(names_in(etc_dir()), Texts());
}

TEST_F(StorageLoad, WithoutACommitTheStampOfAFailedLoadIsUndone) {
  put(row(1, "x'00'", "x'00'"));
  storage->Begin();
  EXPECT_EQ(thrown([this] { load(); }), "ConfSave::XExternalFailure 36: ");
  storage.reset();
  EXPECT_EQ(stamps(), kNotStamped);
}

/// While it lives, SQLite gets little more memory than it has now.
class ShortOfMemory {
 public:
  ShortOfMemory() : before_(sqlite3_hard_heap_limit64(sqlite3_memory_used() + 4000000)) {}
  ShortOfMemory(const ShortOfMemory&) = delete;
  ShortOfMemory& operator=(const ShortOfMemory&) = delete;
  ~ShortOfMemory() { sqlite3_hard_heap_limit64(before_); }

 private:
  sqlite3_int64 before_;
};

TEST_F(StorageLoad, BlobLargerThanTheMemoryIsNotAnEmptyOne) {
  rearrange(
      "drop table Config; create table Sizes (size); insert into Sizes values (100000000); "
      "create view Config as select 'weekly' as name, 17264017408 as version, "
      "zeroblob(size) as keybase, x'00' as etc, 1 as type, 1 as id from Sizes");
  {
    const ShortOfMemory memory;
    EXPECT_EQ(thrown([this] { load(); }), "std::bad_alloc: std::bad_alloc");
  }
  expect_effects({}, {kSelectStored}, {kLoadBegins});
}

// The flag, and a storage that is not opened

TEST_F(StorageLoad, OpenedFlagIsIgnored) {
  put(row(1));
  storage->opened = false;
  load();
  EXPECT_EQ(stamps(), kStamped);
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
