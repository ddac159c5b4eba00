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

/// A load that finds nothing, perhaps because SQLite refuses the query.
struct Missing {
  std::string name;
  std::string schema;
  std::string config;
  int64 version;
  std::string error;
};
void PrintTo(const Missing& missing, std::ostream* out) { *out << missing.name; }

struct StorageLoadMissing : StorageLoad, testing::WithParamInterface<Missing> {};

TEST_P(StorageLoadMissing, ThrowsNotFound) {
  const auto& [title, schema, config, version, error] = GetParam();
  put(row(1));
  put(named("o''hare", row(1)));
  put(named("corlu-config", row(3)));
  change_schema(schema);
  const std::string statement = select_of(config, std::to_string(version));
  LogRecords expected{kLoadBegins};
  if (error.empty()) {
    const std::string text =
        "Configuration is not found: name=" + config + ", version=" + std::to_string(version);
    expected.push_back(says(kLoad, 2, text, {8}));
  } else {
    expected.push_back(says(kLoad, 2, refusal(error, statement, 1), {4}));
    expected.push_back(says(kLoad, 1, "SQL error: " + error + ". Query: " + statement));
  }
  host.on_recorded = [this] { EXPECT_EQ(sqlite3_next_stmt(connection, nullptr), nullptr); };
  expect_logged(expected, [&, &config = config, version = version, &error = error] {
    recorder.clear();
    EXPECT_EQ(thrown([&] { storage->Load(config, nullptr, version, true); }), "ConfSave::XNotFound 0: ");
    EXPECT_EQ(statements(), error.empty() ? Texts{statement} : Texts());
  });
  EXPECT_EQ(commands(), Texts());
}

const Missing kMissing[] = {
    {"EmptyTable", "delete from Config", "weekly", kCurrent, ""},
    {"NextVersion", "", "weekly", kCurrent + 1, ""},  // It prints as 4.5.4, too.
    {"NoVersion", "", "weekly", 0, ""},
    {"LetterCase", "", "Weekly", kCurrent, ""},
    {"Pattern", "", "week*", kCurrent, ""},
    {"SkippedCorluConfig", "", "corlu-config", kCurrent, ""},
    {"MissingTable", "drop table Config", "weekly", kCurrent, "no such table: Config"},
    {"NameWithAQuote", "", "o'hare", kCurrent, "near \"hare\": syntax error"}};

INSTANTIATE_TEST_SUITE_P(Each, StorageLoadMissing, testing::ValuesIn(kMissing), by_name);

TEST_F(StorageLoad, CorluConfigurationIsFoundUnlessSkipped) {
  put(named("corlu-config", row(3)));
  storage->Load("corlu-config", nullptr, kCurrent, false);
  EXPECT_EQ(statements(), (Texts{"select keybase, etc, type, id from 'Config' where " +
                                     where("corlu-config", kCurrentText),
                                 kStampFirst}));
  EXPECT_EQ(commands(), kUnpackKeybase);
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

struct StorageLoadBroken : StorageLoad, testing::WithParamInterface<Broken> {};

TEST_P(StorageLoadBroken, IsRejectedAndNotStamped) {
  const auto& [column, value, type, expected] = GetParam();
  if (column == std::string("id")) rearrange(kForeignTable);
  put(row(1));
  rearrange("update Config set id = 1");
  rearrange(std::string("update Config set ") + column + " = " + value);
  expect_rejected(broken(column, type, expected));
  EXPECT_EQ(statements(), Texts{kSelectStored});
  EXPECT_EQ(records(), LogRecords{kLoadBegins});
}

const Broken kBroken[] = {{"keybase", "NULL", 5, 4}, {"keybase", "'text'", 3, 4}, {"keybase", "2.5", 2, 4},
                          {"keybase", "1", 1, 4},    {"type", "NULL", 5, 1},      {"type", "2.5", 2, 1},
                          {"id", "'one'", 3, 1},     {"id", "x'01'", 4, 1},       {"etc", "NULL", 5, 4}};
constexpr const char* kTypes[] = {"", "Integer", "Float", "Text", "Blob", "Null"};

INSTANTIATE_TEST_SUITE_P(Each, StorageLoadBroken, testing::ValuesIn(kBroken), [](const auto& broken_row) {
  return broken_row.param.column + std::string(kTypes[broken_row.param.type]);
});

TEST_F(StorageLoad, OnlyTheCorluTypeToleratesAnotherEtc) {
  for (const int type : {-1, 0, 2, 4}) {
    rearrange("delete from Config");
    put(row(type, hex(keybase), "NULL"));
    expect_rejected(broken("etc", 5, 4));
    EXPECT_EQ(records(), LogRecords{kLoadBegins});
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

TEST_F(StorageLoad, BrokenSecondRowIsRejectedByItsOwnTypeAndNothingStamped) {
  put_both(row(3, hex(keybase), "x''"), row(1, hex(keybase), "NULL"));
  expect_rejected(broken("etc", 5, 4));
  EXPECT_EQ(records(), (LogRecords{kLoadBegins, sizes_record(keybase.size(), 0)}));
}

}  // namespace
