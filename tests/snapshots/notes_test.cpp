#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "confsave/snapshots.h"
#include "snapshots/notes.h"
#include "support/gateway.h"

namespace {

using namespace test;
using namespace ConfSave::snapshots;
using std::chrono::milliseconds;
using test::Database;

class NotesTest : public Gateway {
 protected:
  NotesTest() {
    put({"weekly", kCurrent});
    put({"daily", kCurrent});
  }

  std::string notes_file() { return state_dir() + "/notes.db"; }

  /// "name: comment", with "!" behind it if pinned.
  Texts notes() {
    const auto found = list();
    if (!found) return {found.error().text};
    Texts result;
    for (const Snapshot& snapshot : *found) {
      result.push_back(snapshot.config.name + ": " + snapshot.comment + (snapshot.pinned ? "!" : ""));
    }
    return result;
  }

  mode_t mode_of(const std::string& file) {
    struct stat status = {};
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return status.st_mode & 07777U;
  }
};

TEST_F(NotesTest, CommentsAndPinsAreKeptBesideTheStorage) {
  const std::string before = read_file(database());
  EXPECT_EQ(note({"weekly"}, "before the change, für alle").code, Code::ok);
  EXPECT_EQ(pin({"daily"}, true).code, Code::ok);
  EXPECT_EQ(notes(), (Texts{"weekly: before the change, für alle", "daily: !"}));
  EXPECT_EQ(note({"daily"}, "x").code, Code::ok);
  EXPECT_EQ(pin({"weekly"}, true).code, Code::ok);
  EXPECT_EQ(pin({"daily"}, false).code, Code::ok);
  EXPECT_EQ(notes(), (Texts{"weekly: before the change, für alle!", "daily: x"}));
  EXPECT_EQ(note({"weekly"}, "").code, Code::ok);
  EXPECT_EQ(notes(), (Texts{"weekly: !", "daily: x"}));
  EXPECT_TRUE(read_file(database()) == before);
}

TEST_F(NotesTest, TheFileIsPrivateUnderAnyUmask) {
  for (const mode_t mask : {0000U, 0777U}) {
    shell("rm -f " + notes_file());
    const mode_t before = umask(mask);
    EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
    umask(before);
    EXPECT_EQ(mode_of(notes_file()), 0600U);
  }
}

TEST_F(NotesTest, ANoteBelongsToTheRowThatItWasWrittenFor) {
  for (const char* change : {"save_time = 1001", "keybase = x'0000'", "etc = x'0000'"}) {
    EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
    Database(database()).run("update Config set " + std::string(change) + " where name = 'weekly'");
    EXPECT_EQ(notes(), (Texts{"weekly: ", "daily: "})) << change;
  }
  EXPECT_EQ(pin({"weekly"}, true).code, Code::ok);
  EXPECT_EQ(notes(), (Texts{"weekly: !", "daily: "}));
}

TEST_F(NotesTest, BadCommentsAreRefused) {
  // Their last bytes could belong to a control character.
  EXPECT_EQ(note({"weekly"}, "\xc2\xa0 \xe2\x82\x80").code, Code::ok);
  EXPECT_EQ(note({"weekly"}, std::string(4096, 'x')).code, Code::ok);
  for (const std::string& comment :
       {std::string(4097, 'x'), std::string("a\nb"), std::string("a\0b", 3), std::string("\x7f"),
        std::string("\xff"), std::string("\xc3"), std::string("\xc3x"), std::string("\xc0\xaf"),
        std::string("\xe0\x80\xaf"), std::string("\xed\xa0\x80"), std::string("\xf4\x90\x80\x80"),
        std::string("\x80"),
        std::string("a\xc2\x9b"
                    "1mb"),
        std::string("\xc2\x80"), std::string("\xc2\x9f")}) {
    EXPECT_EQ(note({"weekly"}, comment).code, Code::bad_argument);
  }
  EXPECT_EQ(notes(), (Texts{"weekly: " + std::string(4096, 'x'), "daily: "}));
}

TEST_F(NotesTest, OnlyAnExistingRowGetsANote) {
  EXPECT_EQ(note({"missing"}, "x").code, Code::not_found);
  EXPECT_EQ(note({"weekly", 5}, "x").code, Code::not_found);
  EXPECT_EQ(note({"week*"}, "x").code, Code::not_found);
  EXPECT_FALSE(exists(notes_file()));
}

TEST_F(NotesTest, ARowWithAVersionOfAnotherTypeGetsANote) {
  Database(database()).run("update Config set version = 'text' where name = 'daily'");
  EXPECT_EQ(note({"daily", 0}, "x").code, Code::ok);
  EXPECT_EQ(pin({"daily", 0}, true).code, Code::ok);
  EXPECT_EQ(ConfSave::snapshots::remove({"daily", 0}).code, Code::pinned);
}

TEST_F(NotesTest, NotesThatCannotBeReadHideNoSnapshot) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const std::string good = read_file(notes_file());
  const struct {
    std::string content;
    Code code;
  } cases[] = {
      {std::string(5000, 'x'), Code::no_storage}, {good.substr(0, 5000), Code::damaged}, {"", Code::ok}};
  for (const auto& c : cases) {
    write_file(notes_file(), c.content);
    EXPECT_EQ(notes(), (Texts{"weekly: ", "daily: "}));
    EXPECT_EQ(note({"weekly"}, "y").code, c.code) << c.content.size();
  }
  EXPECT_EQ(notes(), (Texts{"weekly: y", "daily: "}));
  Database(notes_file()).run("pragma user_version = 3");
  EXPECT_EQ(notes(), (Texts{"weekly: ", "daily: "}));
  EXPECT_EQ(note({"weekly"}, "z").code, Code::newer);
  EXPECT_EQ(Database(notes_file()).value("select comment from note"), "y");
}

TEST_F(NotesTest, ALockEndsTheWait) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const LockHolder holder(notes_file(), 60000);
  ChangeOptions options;
  options.wait = milliseconds(100);
  EXPECT_EQ(note({"weekly"}, "y", options).code, Code::busy);
  Query query;
  query.wait = milliseconds(100);
  EXPECT_EQ(list(query)->size(), 2U);
}

TEST_F(NotesTest, SeveralLocksTogetherWaitNoLonger) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const LockHolder storage(database(), 1500);
  const LockHolder holder(notes_file(), 60000);
  ChangeOptions options;
  options.wait = milliseconds(2000);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(note({"weekly"}, "y", options).code, Code::busy);
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(3000));
}

TEST_F(NotesTest, AChangeWaitsForTheOneBefore) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const Database other(notes_file());
  // Who waits looks again and again, and has the file locked at that moment.
  other.run("pragma busy_timeout = 5000");
  other.run("begin immediate");
  other.run("update note set pinned = 1");
  // A change that has read by now keeps the other from committing, and loses what it writes.
  std::thread end([&other] {
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_NO_THROW(other.run("commit"));
  });
  EXPECT_EQ(note({"weekly"}, "y").code, Code::ok);
  end.join();
  EXPECT_EQ(notes(), (Texts{"weekly: y!", "daily: "}));
}

TEST_F(NotesTest, ARefusedChangeLeavesTheLocksOfThisProcess) {
  EXPECT_EQ(note({"weekly"}, "x").code, Code::ok);
  const Database other(notes_file());
  other.run("begin immediate");
  ChangeOptions options;
  options.wait = milliseconds(10);
  EXPECT_EQ(note({"weekly"}, "y", options).code, Code::busy);
  EXPECT_NE(shell("sqlite3 " + notes_file() + " 'begin immediate' 2>/dev/null"), 0);
}

/// Memory may end in the middle of a transaction.
TEST_F(NotesTest, AnExceptionEndsTheTransaction) {
  const Snapshot snapshot = list()->front();
  Result<Notes> notes = Notes::open_to_write(milliseconds(0));
  ASSERT_TRUE(notes);
  EXPECT_THROW(static_cast<void>(notes->change(snapshot, [](Note&) { throw std::bad_alloc(); })),
               std::bad_alloc);
  EXPECT_EQ(notes->change(snapshot, [](Note& note) { note.comment = "after it"; }).code, Code::ok);
}

TEST_F(NotesTest, TwoWhoChangeTheSameNoteLoseNothing) {
  std::thread other([] {
    for (int i = 0; i < 50; ++i) EXPECT_EQ(pin({"weekly"}, i % 2 == 0).code, Code::ok);
    EXPECT_EQ(pin({"weekly"}, true).code, Code::ok);
  });
  for (int i = 0; i < 50; ++i) EXPECT_EQ(note({"weekly"}, std::to_string(i)).code, Code::ok);
  other.join();
  EXPECT_EQ(notes(), (Texts{"weekly: 49!", "daily: "}));
}

}  // namespace
