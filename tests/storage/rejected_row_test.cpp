#include <gtest/gtest.h>
#include <sqlite3.h>

#include <ostream>
#include <string>
#include <utility>

#include "storage/storage_load.h"

namespace {

using namespace ConfSave;
using namespace test;

/// The message about a column of another type.
std::string broken(const std::string& column, int type, int expected) {
  return "ConfSave::XConstraint 0: Stored configuration ``weekly'' (version 17264017408) is broken or "
         "invalid. column ``" +
         column + "'' type is " + std::to_string(type) + " (expected " + std::to_string(expected) + ")";
}

// Not found

/// A load that finds nothing, with what it logs after "Try to load". With `error` SQLite refuses the query.
struct Missing {
  std::string name;
  std::string schema;
  std::string config;
  int64 version;
  bool skip_corlu;
  std::string statement;
  std::string error;
};
void PrintTo(const Missing& missing, std::ostream* out) { *out << missing.name; }

class StorageLoadMissing : public StorageLoad, public testing::WithParamInterface<Missing> {};

TEST_P(StorageLoadMissing, ThrowsNotFound) {
  const Missing& missing = GetParam();
  put(row(1));
  put(named("o''hare", row(1)));
  put(named("corlu-config", row(3)));
  change_schema(missing.schema);
  LogRecords expected{kLoadBegins};
  if (missing.error.empty()) {
    expected.push_back(says(kLoad, 2,
                            "Configuration is not found: name=" + missing.config +
                                ", version=" + std::to_string(missing.version),
                            {8}));
  } else {
    expected.push_back(says(kLoad, 2, refusal(missing.error, missing.statement, 1), {4}));
    expected.push_back(says(kLoad, 1, "SQL error: " + missing.error + ". Query: " + missing.statement));
  }
  expect_logged(expected, [&] {
    recorder.clear();
    EXPECT_EQ(thrown([&] { storage->Load(missing.config, nullptr, missing.version, missing.skip_corlu); }),
              "ConfSave::XNotFound 0: ");
    EXPECT_EQ(statements(), missing.error.empty() ? Texts{missing.statement} : Texts());
  });
  EXPECT_EQ(commands(), Texts());
  if (missing.error.find("no such") != 0) {
    EXPECT_EQ(query("select * from Config where load_time is not null"), Rows());
  }
}

const Missing kMissing[] = {
    {"EmptyTable", "delete from Config", "weekly", kCurrent, true, kSelectStored, ""},
    // It prints as 4.5.4, too.
    {"NextVersion", "", "weekly", kCurrent + 1, true, select_of("weekly", "17264017409"), ""},
    {"NoVersion", "", "weekly", 0, true, select_of("weekly", "0"), ""},
    {"LetterCase", "", "Weekly", kCurrent, true, select_of("Weekly"), ""},
    {"Prefix", "", "weekl", kCurrent, true, select_of("weekl"), ""},
    {"Pattern", "", "week*", kCurrent, true, select_of("week*"), ""},
    {"EmptyName", "", "", kCurrent, true, select_of(""), ""},
    {"SkippedCorluConfig", "", "corlu-config", kCurrent, true, select_of("corlu-config"), ""},
    {"MissingTable", "drop table Config", "weekly", kCurrent, true, kSelectStored, "no such table: Config"},
    {"OtherTable", "drop table Config; create table Config (name text, version integer)", "weekly",
     kCurrent, true, kSelectStored, "no such column: keybase"},
    {"NameWithAQuote", "", "o'hare", kCurrent, false,
     "select keybase, etc, type, id from 'Config' where " + where("o'hare", kCurrentText),
     "near \"hare\": syntax error"}};

INSTANTIATE_TEST_SUITE_P(, StorageLoadMissing, testing::ValuesIn(kMissing), by_name);

TEST_F(StorageLoad, CorluConfigurationIsFoundUnlessSkipped) {
  put(named("corlu-config", row(3)));
  storage->Load("corlu-config", nullptr, kCurrent, false);
  EXPECT_EQ(statements(), (Texts{"select keybase, etc, type, id from 'Config' where " +
                                     where("corlu-config", kCurrentText),
                                 kStampFirst}));
  EXPECT_EQ(commands(), kUnpackKeybase);
  EXPECT_EQ(stamps(), kStamped);
}

TEST_F(StorageLoad, StatementIsFinalizedBeforeNotFoundIsLogged) {
  bool open = true;
  host.on_recorded = [&] { open = sqlite3_next_stmt(connection, nullptr) != nullptr; };
  EXPECT_EQ(thrown([this] { load(); }), "ConfSave::XNotFound 0: ");
  EXPECT_FALSE(open);
}

TEST_F(StorageLoad, NameIsInsertedUnchanged) {
  put(named("o''hare", row(1)));
  storage->Load("o''hare", nullptr, kCurrent, true);
  EXPECT_EQ(stamps(), kStamped);
}

TEST_F(StorageLoad, FailedFirstStepCountsAsNotFound) {
  put(row(1));
  sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, 200);  // Smaller than the row.
  expect_rejected("ConfSave::XNotFound 0: ");
  EXPECT_EQ(
      records(),
      (LogRecords{kLoadBegins,
                  says(kLoad, 2, "Configuration is not found: name=weekly, version=17264017408", {8})}));
}

// Broken rows

/// A column with a value of another type than the library stores.
struct Broken {
  const char* column;
  const char* value;
  int type;
  int expected;
};
void PrintTo(const Broken& row, std::ostream* out) { *out << row.column << " = " << row.value; }

class StorageLoadBroken : public StorageLoad, public testing::WithParamInterface<Broken> {};

TEST_P(StorageLoadBroken, IsRejectedAndNotStamped) {
  const auto& [column, value, type, expected] = GetParam();
  if (column == std::string("id")) rearrange(kForeignTable);
  put(row(1));
  rearrange("update Config set id = 1");
  rearrange(std::string("update Config set ") + column + " = " + value);
  expect_rejected(broken(column, type, expected));
  EXPECT_EQ(statements(), Texts{kSelectStored});
  EXPECT_EQ(records(), LogRecords{kLoadBegins});
  host.records.clear();
  host.log_level = 0;
  expect_rejected(broken(column, type, expected));
  EXPECT_EQ(records(), LogRecords());
}

const Broken kBroken[] = {{"keybase", "NULL", 5, 4}, {"keybase", "'text'", 3, 4}, {"keybase", "2.5", 2, 4},
                          {"keybase", "1", 1, 4},    {"type", "NULL", 5, 1},      {"type", "'full'", 3, 1},
                          {"type", "2.5", 2, 1},     {"type", "x'01'", 4, 1},     {"id", "NULL", 5, 1},
                          {"id", "'one'", 3, 1},     {"id", "2.5", 2, 1},         {"id", "x'01'", 4, 1},
                          {"etc", "NULL", 5, 4},     {"etc", "'text'", 3, 4},     {"etc", "2.5", 2, 4},
                          {"etc", "1", 1, 4}};
constexpr const char* kTypes[] = {"", "Integer", "Float", "Text", "Blob", "Null"};

INSTANTIATE_TEST_SUITE_P(, StorageLoadBroken, testing::ValuesIn(kBroken), [](const auto& broken_row) {
  return broken_row.param.column + std::string(kTypes[broken_row.param.type]);
});

TEST_F(StorageLoad, OnlyTheCorluTypeToleratesAnotherEtc) {
  for (const int type : {-1, 0, 2, 4}) {
    for (const auto& [value, code] : {std::pair("NULL", 5), {"'text'", 3}, {"2.5", 2}, {"1", 1}}) {
      rearrange("delete from Config");
      put(row(type, hex(keybase), value));
      expect_rejected(broken("etc", code, 4));
      EXPECT_EQ(records(), LogRecords{kLoadBegins});
    }
  }
  rearrange("delete from Config");
  put(row(3, "NULL", "NULL"));
  expect_rejected(broken("keybase", 5, 4));
}

TEST_F(StorageLoad, MessageNamesTheFirstBrokenColumn) {
  put_both(row(1, "NULL", "NULL"), named("daily", row(1)));
  rearrange("update Config set type = NULL, id = NULL");
  expect_rejected(broken("keybase", 5, 4));
  rearrange("update Config set keybase = x'00'");
  expect_rejected(broken("type", 5, 1));
  rearrange("update Config set type = 1");
  expect_rejected(broken("id", 5, 1));
  rearrange("update Config set id = 1");
  expect_rejected(broken("etc", 5, 4));
}

TEST_F(StorageLoad, BrokenSecondRowIsRejectedAndNothingStamped) {
  put_both(row(1), row(1, "NULL", "NULL"));
  expect_rejected(broken("keybase", 5, 4));
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes}));
}

TEST_F(StorageLoad, LastRowOfAnotherTypeIsCheckedByItsOwnType) {
  put_both(row(3, hex(keybase), "NULL"), row(1, hex(keybase), "NULL"));
  expect_rejected(broken("etc", 5, 4));
}

}  // namespace
