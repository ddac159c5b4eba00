// What export_to() writes, and that an import gives it back to the byte.

#include <sys/stat.h>

#include "snapshots/exporting.h"
#include "snapshots/small_disk.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;

/// Rows of every kind that a gateway may have.
class ExportTest : public Exporting {
 protected:
  ExportTest() {
    // Ids have gaps.
    saved("gone");
    EXPECT_EQ(ConfSave::snapshots::remove({"gone"}).code, Code::ok);
    saved("part", of_type(ConfSave::conf_part));
    saved("packets", of_type(ConfSave::conf_corlu));
    EXPECT_TRUE(cs::save({"weekly", 0}));
    EXPECT_EQ(pin({"part"}, true).code, Code::ok);
    // As the contract library and older programs leave rows.
    const Database storage(database());
    storage.run("update Config set load_time = 4102444800 where name = 'part'");
    storage.run(
        "insert into Config (name, version, keybase, etc, type, save_time) select 'corlu-config', 0, "
        "keybase, "
        "null, 3, -5 from Config where name = 'packets'");
    for (const Texts& row : query("select name, version from Config order by id")) {
      all_.push_back({row[0], std::stoll(row[1])});
    }
  }

  Ids all_;
};

TEST_F(ExportTest, ARoundTripIsByteIdentical) {
  const Rows before = rows_in(database());
  const Exported written = done(export_to(all_, exported()));
  EXPECT_EQ(written.snapshots.size(), all_.size());
  EXPECT_EQ(written.warnings, Texts());
  EXPECT_EQ(rows_in(exported()), before);
  drop_everything();
  EXPECT_EQ(imported(exported()).snapshots.size(), all_.size());
  EXPECT_EQ(rows_in(database()), before);
  // And so does the second one.
  done(export_to(all_, root() + "/again"));
  EXPECT_EQ(rows_in(root() + "/again"), before);
}

TEST_F(ExportTest, NotesGoWithTheRows) {
  done(export_to(all_, exported()));
  drop_everything();
  imported(exported());
  const auto weekly = find({"weekly", ConfSave::CURRENT_VERSION});
  ASSERT_TRUE(weekly);
  EXPECT_EQ(weekly->comment, "before the change");
  EXPECT_FALSE(weekly->author.empty());
  const auto part = find({"part"});
  ASSERT_TRUE(part);
  EXPECT_TRUE(part->pinned);
  for (const Id& id : all_) {
    const auto verdict = verify(id);
    ASSERT_TRUE(verdict) << id.name;
    EXPECT_EQ(verdict->state,
              id.name == "corlu-config" ? Verdict::State::unproven : Verdict::State::intact);
  }
}

TEST_F(ExportTest, TheFileIsAStorage) {
  const std::string before = query("select group_concat(id || name) from Config")[0][0];
  done(export_to(all_, exported()));
  EXPECT_EQ(Database(exported()).value("pragma integrity_check"), "ok");
  drop_everything();
  ASSERT_EQ(shell("cp " + exported() + " " + database()), 0);
  EXPECT_EQ(query("select group_concat(id || name) from Config")[0][0], before);
  // To the contract library, too.
  const std::string target = root() + "/target/";
  ASSERT_EQ(shell("mkdir " + target), 0);
  ConfSave::Storage().Load("weekly", target.c_str(), ConfSave::CURRENT_VERSION, true);
  EXPECT_EQ(read_file(target + "gw1.conf"), read_file(config("gw1.conf")));
  EXPECT_EQ(ConfSave::Storage().List(0, "", false).size(), all_.size());
}

TEST_F(ExportTest, OnlyTheOwnerMayReadIt) {
  const mode_t before = umask(0);
  done(export_to({{"weekly"}}, exported()));
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(exported().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
}

TEST_F(ExportTest, AFileThatExistsIsReplacedOnlyOnRequest) {
  write_file(exported(), "mine");
  const Texts names = names_in(root());
  const auto refusal = export_to({{"weekly"}}, exported());
  ASSERT_FALSE(refusal);
  EXPECT_EQ(refusal.error().code, Code::taken);
  EXPECT_EQ(read_file(exported()), "mine");
  ExportOptions options;
  options.overwrite = true;
  const auto missing = export_to({{"weekly"}, {"missing"}}, exported(), options);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, Code::not_found);
  EXPECT_EQ(read_file(exported()), "mine");
  done(export_to({{"weekly"}}, exported(), options));
  EXPECT_EQ(Database(exported()).value("select name from Config"), "weekly");
  EXPECT_EQ(names_in(root()), names);
}

TEST_F(ExportTest, NoOtherKindOfFileIsReplaced) {
  ExportOptions options;
  options.overwrite = true;
  ASSERT_EQ(symlink("target", exported().c_str()), 0);
  for (const std::string& file :
       {exported(), state_dir(), database(), notes_file(), state_dir() + "/restore.db",
        std::string("/dev/null"), std::string(), root() + "/"}) {
    const auto refusal = export_to({{"weekly"}}, file, options);
    ASSERT_FALSE(refusal) << file;
    EXPECT_EQ(refusal.error().code, Code::bad_argument) << file;
  }
  EXPECT_TRUE(find({"part"}));
}

TEST_F(ExportTest, ASinkGetsTheSameFile) {
  std::string bytes;
  done(export_to(all_, [&bytes, this](std::string_view piece) {
    // A sink that ends the process leaves no keys behind.
    EXPECT_EQ(names_in(temp_dir()), Texts());
    bytes += piece;
    return Error{};
  }));
  write_file(exported(), bytes);
  EXPECT_EQ(rows_in(exported()), rows_in(database()));
  const auto failed = export_to(all_, [](std::string_view) { return Error{Code::failed, 0, "", "no"}; });
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().text, "no");
  // And a supply gives it back.
  const Rows before = rows_in(database());
  drop_everything();
  std::size_t at = 0;
  const auto result = import_from([&]() -> Result<std::string_view> {
    const std::string_view piece = std::string_view(bytes).substr(at, 1000);
    at += piece.size();
    return piece;
  });
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(rows_in(database()), before);
}

TEST_F(ExportTest, ADamagedRowIsCopiedAsItIs) {
  Database(database()).run("update Config set keybase = x'1f8b', type = 'text' where name = 'part'");
  const Rows before = rows_in(database());
  done(export_to(all_, exported()));
  EXPECT_EQ(rows_in(exported()), before);
}

TEST_F(ExportTest, WithoutNotesTheRowsAreWritten) {
  write_file(notes_file(), std::string(5000, 'x'));
  const Exported written = done(export_to(all_, exported()));
  EXPECT_EQ(written.warnings.size(), 1U);
  EXPECT_EQ(rows_in(exported()), rows_in(database()));
}

TEST_F(ExportTest, WithoutNotesNoCopyThatMayHaveThemIsReplaced) {
  done(export_to(all_, exported()));
  const std::string copy = read_file(exported());
  ExportOptions options;
  options.overwrite = true;
  for (const std::string& notes : {std::string(5000, 'x'), std::string()}) {
    write_file(notes_file(), notes);
    if (notes.empty()) shell("rm " + notes_file());
    const auto result = export_to(all_, exported(), options);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, Code::bad_argument);
    EXPECT_EQ(result.error().path, exported());
    EXPECT_EQ(result.error().text.find("this copy holds comments and pins, which cannot be read now: " +
                                       notes_file()),
              0U)
        << result.error().text;
    EXPECT_EQ(read_file(exported()), copy);
  }
}

TEST_F(ExportTest, ALockEndsTheWait) {
  ExportOptions options;
  options.wait = std::chrono::milliseconds(50);
  const LockHolder holder(database(), 60000);
  const auto refusal = export_to(all_, exported(), options);
  ASSERT_FALSE(refusal);
  EXPECT_EQ(refusal.error().code, Code::busy);
  EXPECT_FALSE(exists(exported()));
}

/// The new name would not be durable. Which is found out before the old file is gone.
TEST_F(ExportTest, ADirectoryThatCannotBeSyncedGetsNoFile) {
  if (geteuid() != 0) GTEST_SKIP() << "root may read every directory";
  constexpr uid_t kNobody = 65534;
  const std::string file = root() + "/box/exported";
  ASSERT_EQ(shell("mkdir " + root() + "/box && echo mine >" + file + " && chown -R 65534 " + root() +
                  " && chmod 300 " + root() + "/box"),
            0);
  ExportOptions options;
  options.overwrite = true;
  ASSERT_EQ(seteuid(kNobody), 0);
  const auto refusal = export_to({{"weekly"}}, file, options);
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_FALSE(refusal);
  EXPECT_EQ(refusal.error().code, Code::denied);
  EXPECT_EQ(refusal.error().path, root() + "/box/");
  EXPECT_TRUE(read_file(file) == "mine\n");
  EXPECT_EQ(names_in(root() + "/box"), Texts{"exported"});
}

TEST_F(ExportTest, AFullDiskLeavesNothing) {
  const std::string directory = root() + "/disk";
  ASSERT_EQ(shell("mkdir " + directory), 0);
  {
    const SmallDisk disk(directory, 16 << 10);
    const auto refusal = export_to(all_, directory + "/exported");
    ASSERT_FALSE(refusal);
    EXPECT_EQ(refusal.error().code, Code::no_space) << shown(refusal.error());
    EXPECT_EQ(refusal.error().path, directory + "/exported");
    EXPECT_EQ(names_in(directory), Texts());
  }
  shell("rmdir " + directory);
}

}  // namespace
