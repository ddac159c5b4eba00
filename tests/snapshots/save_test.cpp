#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "snapshots/saving.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using Outcome = Saved::Outcome;

/// Of a table that another program has made.
const std::string kColumns =
    "id integer primary key, name text, version integer, keybase blob, etc blob, type integer, save_time "
    "integer, load_time integer, unique (name, version)";

class Save : public Saving {
 protected:
  /// The tar archive in a column, or "NULL".
  std::string unpacked(const std::string& name, const std::string& column) {
    const std::string digits = Database(database())
                                   .value("select hex(" + column +
                                          ") from Config "
                                          "where name = '" +
                                          name + "'");
    if (digits.empty()) return "NULL";
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    write_file(root() + "/archive.gz", bytes);
    EXPECT_EQ(shell("gzip -dc < " + root() + "/archive.gz > " + root() + "/archive"), 0);
    return read_file(root() + "/archive");
  }
};

TEST_F(Save, WhatWasSavedIsThere) {
  SaveOptions options;
  options.comment = "before the change";
  const Saved result = saved("weekly", options);
  EXPECT_EQ(result.outcome, Outcome::created);
  EXPECT_EQ(result.files, 33);
  ConfSave::int64 bytes = 0;
  for (const auto& dir : {config_dir(), etc_dir()}) {
    for (const auto& [name, content] : tree(dir)) bytes += static_cast<ConfSave::int64>(content.size());
  }
  EXPECT_EQ(result.bytes, bytes);
  EXPECT_EQ(result.missing, Texts());
  EXPECT_EQ(result.warnings, Texts());
  EXPECT_EQ(result.snapshot.comment, "before the change");
  EXPECT_EQ(result.snapshot.author.compare(0, 4, "root"), 0) << result.snapshot.author;
  const auto found = list();
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 1U);
  EXPECT_EQ(found->at(0).id, result.snapshot.id);
  EXPECT_EQ(found->at(0).config.name, "weekly");
  EXPECT_EQ(found->at(0).config.vers, kCurrent);
  EXPECT_EQ(found->at(0).config.type, ConfSave::conf_full);
  EXPECT_GE(found->at(0).config.save_time, started);
  EXPECT_EQ(found->at(0).config.save_time, result.snapshot.config.save_time);
  EXPECT_EQ(found->at(0).keybase_size, result.snapshot.keybase_size);
  EXPECT_EQ(found->at(0).etc_size, result.snapshot.etc_size);
  EXPECT_EQ(found->at(0).comment, "before the change");
  EXPECT_EQ(found->at(0).author, result.snapshot.author);
  EXPECT_EQ(verify({"weekly"})->state, Verdict::State::intact);
  EXPECT_TRUE(is_live("weekly"));
  EXPECT_EQ(read_file(lock_file()), "");
  expect_nothing_held();
  EXPECT_EQ(open_files(), Texts());
}

TEST_F(Save, TheRowIsLikeOneOfTheContract) {
  for (const auto type : {ConfSave::conf_full, ConfSave::conf_part, ConfSave::conf_corlu}) {
    shell("rm -f " + database());
    ASSERT_TRUE(ConfSave::save("theirs", type, 0, true));
    const std::string layout =
        "select (select auto_vacuum from pragma_auto_vacuum), (select page_size from pragma_page_size), "
        "(select encoding from pragma_encoding), (select journal_mode from pragma_journal_mode), "
        "group_concat(type || name || tbl_name || ifnull(sql, '')) from sqlite_schema";
    const Rows their_layout = query(layout);
    SaveOptions options = of_type(type);
    saved("ours", options);
    options.overwrite = true;
    EXPECT_EQ(saved("ours", options).outcome, Outcome::replaced);
    const Rows types = query(
        "select distinct typeof(id), typeof(name), typeof(version), typeof(keybase), typeof(etc), "
        "typeof(type), typeof(save_time), typeof(load_time), version, type, load_time from Config");
    EXPECT_EQ(types.size(), 1U) << testing::PrintToString(types);
    for (const char* column : {"keybase", "etc"}) {
      EXPECT_TRUE(unpacked("ours", column) == unpacked("theirs", column)) << type << column;
    }
    EXPECT_EQ(stored(), (Texts{"theirs", "ours"}));
    shell("rm -f " + database());
    saved("ours", of_type(type));
    EXPECT_EQ(query(layout), their_layout);
  }
}

TEST_F(Save, TheContractRestoresIt) {
  saved("weekly");
  const Files before = files_below(config_dir());
  const Files failover = files_below(etc_dir());
  shell("rm -r " + config_dir() + "* " + etc_dir() + "*");
  ConfSave::load("weekly", nullptr, 0, true);
  EXPECT_EQ(files_below(config_dir()), before);
  EXPECT_EQ(files_below(etc_dir()), failover);
}

TEST_F(Save, ANewStorageIsPrivateUnderAnyUmask) {
  for (const mode_t mask : {0000U, 0777U}) {
    shell("rm -f " + state_dir() + "/*");
    const mode_t before = umask(mask);
    EXPECT_EQ(code("weekly"), Code::ok);
    umask(before);
    for (const std::string& file : {database(), notes_file(), lock_file()}) {
      struct stat status = {};
      ASSERT_EQ(stat(file.c_str(), &status), 0) << file;
      EXPECT_EQ(status.st_mode & 07777U, 0600U) << file;
    }
  }
}

TEST_F(Save, AnExistingStorageKeepsItsMode) {
  make_table();
  shell("chmod 640 " + database());
  saved("weekly");
  struct stat status = {};
  ASSERT_EQ(stat(database().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(Save, BadArgumentsDoNothing) {
  SaveOptions comment;
  comment.comment = "a\nb";
  const struct {
    Id id;
    SaveOptions options;
    std::string text;
  } cases[] = {
      {{""}, {}, "the name is empty"},
      {{std::string(81, 'x')}, {}, "a name has at most 80 characters"},
      {{"o'hare"}, {}, "the name has the character '''; a name has letters, digits, '-' and '_'"},
      {{"a\n"}, {}, "the name has the character '\\x0a'; a name has letters, digits, '-' and '_'"},
      {{std::string("a\0", 2)},
       {},
       "the name has the character '\\x00'; a name has letters, digits, '-' and '_'"},
      {{"weekly", -1}, {}, "the version is negative"},
      {{"weekly"}, of_type(ConfSave::conf_none), "the type is not full, part or corlu"},
      {{"weekly"}, of_type(ConfSave::conftype(4)), "the type is not full, part or corlu"},
      {{"weekly"}, comment, "a comment has no control characters"},
  };
  for (const auto& c : cases) {
    const Error error = failure(c.id, c.options);
    EXPECT_EQ(error.code, Code::bad_argument) << c.text;
    EXPECT_EQ(error.text, c.text);
  }
  EXPECT_EQ(names_in(state_dir()), Texts());
  EXPECT_EQ(host.commands.size(), 0U);
  EXPECT_EQ(code(std::string(80, 'x')), Code::ok);
  EXPECT_EQ(failure({"-_09azAZ", 0}).code, Code::ok);
  EXPECT_EQ(query("select version from Config where name = '-_09azAZ'"), Rows{{"0"}});
}

TEST_F(Save, ASnapshotIsReplacedOnlyOnRequest) {
  const Saved first = saved("weekly");
  write_file(config("gw1.conf"), "changed");
  EXPECT_EQ(shown(failure({"weekly"})),
            std::to_string(static_cast<int>(Code::taken)) + " : the snapshot 'weekly' exists");
  EXPECT_FALSE(is_live("weekly"));
  EXPECT_EQ(failure({"weekly", 5}).code, Code::ok);
  const Saved second = saved("weekly", overwrite());
  EXPECT_EQ(second.outcome, Outcome::replaced);
  EXPECT_GT(second.snapshot.id, first.snapshot.id);
  EXPECT_TRUE(is_live("weekly"));
  EXPECT_EQ(query("select version from Config order by id"), (Rows{{"5"}, {kCurrentText}}));
  EXPECT_EQ(saved("other", overwrite()).outcome, Outcome::created);
}

TEST_F(Save, ASnapshotIsReplacedInAStorageOfAnotherLayout) {
  const std::string incremental = "pragma auto_vacuum = incremental; ";
  const std::string cases[] = {
      kCreateTable,
      "pragma auto_vacuum = full; " + std::string(kCreateTable),
      incremental + "pragma encoding = 'UTF-16le'; " + kCreateTable,
      incremental + "create table Config (" + kColumns + ", check (typeof(name) = 'text'))",
      incremental + "create table Config (" + kColumns + ") strict",
      incremental + kCreateTable + "; insert into Config (name, version) values (cast('weekly' as blob), " +
          kCurrentText + ")",
  };
  for (const std::string& sql : cases) {
    shell("rm -f " + database());
    Database(database()).run(sql);
    EXPECT_EQ(saved("weekly", overwrite()).outcome, Outcome::created) << sql;
    write_file(config("gw1.conf"), sql);
    EXPECT_EQ(saved("weekly", overwrite()).outcome, Outcome::replaced) << sql;
    EXPECT_EQ(query("select name from Config where typeof(name) = 'text'"), (Rows{{"weekly"}})) << sql;
    EXPECT_EQ(query("pragma integrity_check"), Rows{{"ok"}}) << sql;
    EXPECT_TRUE(is_live("weekly")) << sql;
  }
}

TEST_F(Save, ARuleThatEndsTheTransactionLeavesTheOldRow) {
  Database(database())
      .run("pragma auto_vacuum = incremental; create table Config (" + kColumns + " on conflict rollback)");
  saved("weekly");
  Database(database())
      .run("insert into Config (name, version) select cast(name as blob), version from Config");
  const Rows before = query("select *, hex(keybase) from Config");
  write_file(config("gw1.conf"), "changed");
  EXPECT_EQ(code("weekly", overwrite()), Code::no_storage);
  EXPECT_TRUE(query("select *, hex(keybase) from Config") == before);
}

TEST_F(Save, APinStaysWithTheName) {
  saved("weekly");
  ASSERT_EQ(pin({"weekly"}, true).code, Code::ok);
  ASSERT_EQ(note({"weekly"}, "old").code, Code::ok);
  EXPECT_EQ(shown(failure({"weekly"})), std::to_string(static_cast<int>(Code::pinned)) +
                                            " : the snapshot 'weekly' exists and is pinned");
  EXPECT_TRUE(saved("weekly", overwrite()).snapshot.pinned);
  const auto found = list();
  ASSERT_TRUE(found);
  ASSERT_EQ(found->size(), 1U);
  EXPECT_TRUE(found->at(0).pinned);
  EXPECT_EQ(found->at(0).comment, "");
  EXPECT_EQ(Database(notes_file()).query("select count(*) from note"), Rows{{"1"}});
}

TEST_F(Save, WhatIsAgreedToIsOneRowAndNoPin) {
  const Snapshot old = saved("weekly").snapshot;
  SaveOptions options = overwrite();
  const auto refusal = [&options](const Snapshot& agreed) {
    const auto result = save_over(agreed, options);
    return shown(result ? Error{} : result.error());
  };
  const std::string anew =
      std::to_string(static_cast<int>(Code::taken)) + " : the snapshot 'weekly' was stored anew meanwhile";
  for (int field = 0; field < 4; ++field) {
    Snapshot other = old;
    ++(field == 0   ? other.id
       : field == 1 ? other.config.save_time
       : field == 2 ? other.keybase_size
                    : other.etc_size);
    EXPECT_EQ(refusal(other), anew);
  }
  // After the first look, another program is still in time.
  after_packing([this](int) {
    Database(database()).run("delete from Config");
    put({"weekly", kCurrent});
  });
  EXPECT_EQ(refusal(old), anew);
  host.on_command = {};
  EXPECT_EQ(query("select save_time from Config"), Rows{{"1000"}});
  const Snapshot theirs = *find({"weekly"});
  ASSERT_EQ(pin({"weekly"}, true).code, Code::ok);
  EXPECT_EQ(refusal(theirs), std::to_string(static_cast<int>(Code::pinned)) +
                                 " : the snapshot 'weekly' exists and is pinned");
  ASSERT_EQ(pin({"weekly"}, false).code, Code::ok);
  const std::string good = read_file(notes_file());
  write_file(notes_file(), std::string(5000, 'x'));
  EXPECT_EQ(refusal(theirs), std::to_string(static_cast<int>(Code::no_storage)) + " " + notes_file() +
                                 ": file is not a database");
  write_file(notes_file(), good);
  EXPECT_EQ(query("select save_time from Config"), Rows{{"1000"}});
  const auto result = save_over(theirs);
  ASSERT_TRUE(result) << shown(result.error());
  EXPECT_EQ(result->outcome, Outcome::replaced);
  // Nothing is overwritten where nothing is.
  EXPECT_EQ(cs::remove({"weekly"}).code, Code::ok);
  EXPECT_EQ(save_over(theirs)->outcome, Outcome::created);
}

TEST_F(Save, APinIsNotLostToLockedNotes) {
  saved("weekly");
  ASSERT_EQ(pin({"weekly"}, true).code, Code::ok);
  {
    const LockHolder holder(notes_file(), 60000);
    EXPECT_EQ(code("weekly", waiting(100)), Code::busy);
  }
  EXPECT_TRUE(saved("weekly", overwrite()).snapshot.pinned);
}

TEST_F(Save, ALogThatFailsIsNoFailureOfTheSave) {
  host.on_system_log = throwing(std::runtime_error("no system log"));
  saved("weekly");
  EXPECT_EQ(ConfSave::snapshots::remove({"weekly"}).code, Code::ok);
}

TEST_F(Save, NothingIsStoredIfNothingChanged) {
  const Saved first = saved("weekly", if_changed());
  EXPECT_EQ(first.outcome, Outcome::created);
  for (const char* name : {"weekly", "daily"}) {
    const Saved again = saved(name, if_changed());
    EXPECT_EQ(again.outcome, Outcome::unchanged);
    EXPECT_EQ(again.snapshot.id, first.snapshot.id);
    EXPECT_EQ(again.files, first.files);
    EXPECT_EQ(again.bytes, first.bytes);
  }
  EXPECT_EQ(stored(), Texts{"weekly"});
  write_file(config("gw1.conf"), "changed");
  EXPECT_EQ(code("weekly", if_changed()), Code::taken);
  EXPECT_EQ(saved("daily", if_changed()).outcome, Outcome::created);
  EXPECT_EQ(stored(), (Texts{"weekly", "daily"}));
}

TEST_F(Save, OnlyTheNewestSnapshotOfTheTypeCounts) {
  saved("full");
  EXPECT_EQ(saved("part",
                  [] {
                    SaveOptions options = if_changed();
                    options.type = ConfSave::conf_part;
                    return options;
                  }())
                .outcome,
            Outcome::created);
  write_file(config("gw1.conf"), "changed");
  saved("later");
  Database(database()).run("update Config set save_time = save_time + 5 where name = 'later'");
  write_file(config("gw1.conf"), "content of gw1.conf\n");
  EXPECT_EQ(saved("again", if_changed()).outcome, Outcome::created);
  Database(database()).run("update Config set save_time = save_time + 10 where name = 'again'");
  EXPECT_EQ(saved("more", if_changed()).outcome, Outcome::unchanged);
  saved("corlu-config");
  Database(database()).run("update Config set save_time = save_time + 20 where name = 'corlu-config'");
  EXPECT_EQ(saved("more", if_changed()).snapshot.config.name, "again");
}

TEST_F(Save, ASnapshotOfTheContractCanBeTheNewest) {
  ASSERT_TRUE(ConfSave::save("theirs", ConfSave::conf_full, 0, true));
  const Saved result = saved("weekly", if_changed());
  EXPECT_EQ(result.outcome, Outcome::unchanged);
  EXPECT_EQ(result.snapshot.config.name, "theirs");
  EXPECT_EQ(result.files, 33);
  Database(database()).run("update Config set keybase = x'00'");
  EXPECT_EQ(saved("weekly", if_changed()).outcome, Outcome::created);
}

TEST_F(Save, AnEmptyConfigurationIsRefused) {
  saved("weekly");
  shell("rm -r " + config_dir() + "* " + etc_dir() + "*");
  shell("mkdir -p " + config("hub/out"));
  EXPECT_EQ(code("weekly", overwrite()), Code::incomplete);
  EXPECT_EQ(failure({"empty"}).text, "no file of the contents exists");
  EXPECT_EQ(stored(), Texts{"weekly"});
  SaveOptions options;
  options.allow_empty = true;
  const Saved result = saved("empty", options);
  EXPECT_EQ(result.files, 0);
  EXPECT_EQ(result.bytes, 0);
  EXPECT_EQ(members({"empty"})->size(), 1U);
}

TEST_F(Save, FixedPathsThatAreGoneAreMissing) {
  const Texts gone = {etc_dir() + "failover.ini", config("hub/key"), config("station"),
                      config("user/filter.conf")};
  for (const bool by_the_contract : {true, false}) {
    shell("rm -rf " + config_dir() + "* " + etc_dir() + "* " + state_dir() + "/*");
    make_configuration();
    write_file(config("gw*"), "the name is a pattern, and no fixed path");
    if (by_the_contract) {
      ASSERT_TRUE(ConfSave::save("before", ConfSave::conf_full, 0, true));
    } else {
      saved("before");
    }
    shell("cd " + config_dir() + " && rm hub/key station user/filter.conf gw1.conf 'gw*' " + etc_dir() +
          "failover.ini");
    const Saved result = saved("weekly");
    EXPECT_EQ(result.missing, gone);
    EXPECT_EQ(result.warnings, Texts());
    Database(database()).run("update Config set save_time = save_time + 1 where name = 'weekly'");
    EXPECT_EQ(saved("next").missing, Texts());
  }
}

TEST_F(Save, WithoutAReadableOlderSnapshotThereIsAWarning) {
  saved("before");
  Database(database()).run("update Config set keybase = x'00'");
  shell("rm " + config("station"));
  const Saved result = saved("weekly");
  EXPECT_EQ(result.missing, Texts());
  EXPECT_EQ(result.warnings, Texts{"it is not known which files are gone since 'before': keybase: the "
                                   "archive ends in the middle"});
}

TEST_F(Save, ADatabaseThatIsNotWholeIsMissing) {
  shell("rm " + config("user/config.idx"));
  const Saved result = saved("weekly");
  EXPECT_EQ(result.missing, Texts{config("user/config.db")});
  EXPECT_EQ(result.files, 31);
}

TEST_F(Save, FilesThatMayNotBeReadAreMissing) {
  const std::string report = root() + "/report";
  write_file(report, "");
  ASSERT_EQ(shell("chown -R 65534 " + root() + " " + etc_dir() + " && cd " + config_dir() +
                  " && chown 0 gw1.conf hub && chmod 600 gw1.conf && chmod 700 hub"),
            0);
  const pid_t pid = fork();
  if (pid == 0) {
    if (setuid(65534) != 0) _exit(1);
    const auto result = save({"weekly"});
    std::string text = result ? std::to_string(result->files) : shown(result.error());
    if (result) {
      for (const std::string& path : result->missing) text += " " + path;
      for (const std::string& warning : result->warnings) text += " " + warning;
    }
    write_file(report, text);
    _exit(0);
  }
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(read_file(report), "29 " + config("gw1.conf") + " " + config("hub"));
}

TEST_F(Save, NothingIsPrinted) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  saved("weekly");
  EXPECT_EQ(code("weekly"), Code::taken);
  host.on_command = fail_commands("cd ", 1);
  EXPECT_EQ(code("weekly", overwrite()), Code::failed);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Save, ExceptionsOfTheHostBecomeErrors) {
  host.on_command = [](const std::string&) -> std::optional<int> { throw std::runtime_error("no shell"); };
  EXPECT_EQ(failure({"weekly"}).text, "no shell");
  host.on_command = [](const std::string&) -> std::optional<int> { throw std::bad_alloc(); };
  EXPECT_THROW((void)save({"weekly"}), std::bad_alloc);
  host.on_command = nullptr;
  EXPECT_EQ(stored(), Texts());
  EXPECT_EQ(code("weekly"), Code::ok);
}

}  // namespace
