#include "Storage/Indexes/SQLite/TrackPropertiesDB.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Logging/LogCapture.h"
#include "Platform/SQLite/Database.h"
#include "Platform/SQLite/SQLiteError.h"
#include "Platform/SQLite/Statement.h"
#include "tests/Support/TempDir.h"

using loopstore::test::TempDir;
using Moreld::SQLite::Database;
using Moreld::SQLite::SQLiteError;
using Moreld::SQLite::Statement;
using tav::mr::logging::LogCapture;
using Properties = TrackPropertiesDB::Properties;
using AllProperties = std::map<long, Properties>;

namespace {

long CountRows(Database& db) {
    Statement count(db, "SELECT COUNT(*) FROM properties");
    count.Execute();
    return count.GetIntegerValue(0);
}

class TrackPropertiesDBTest : public ::testing::Test {
  protected:
    void SetUp() override {
        db_.Open(dir_.Path());
        ASSERT_TRUE(raw_.Open(dir_ / "properties.db"));
    }

    TempDir dir_;
    TrackPropertiesDB db_;
    Database raw_;  // a second connection, writing behind TrackPropertiesDB's back
};

TEST(TrackPropertiesDBOpen, CreatesExactlyTheSchemaOnceAndReopenKeepsRows) {
    TempDir dir;
    const std::string path = dir / "properties.db";
    {
        LogCapture capture("TrackPropertiesDB");
        TrackPropertiesDB db;
        db.Open(dir.Path());
        std::string line = "Creating table \"properties\" on database " + path;
        EXPECT_TRUE(capture.HasExactly(line)) << line;
        EXPECT_EQ(capture.LevelOf(line), 20);
        db.SetTrackProperties(1, {{"k", "v"}});
    }

    Database raw;
    ASSERT_TRUE(raw.Open(path));
    Statement schema(raw, "SELECT group_concat(name || ': ' || sql, '; ') FROM sqlite_master");
    schema.Execute();
    EXPECT_EQ(schema.GetTextValue(0),
              "properties: CREATE TABLE properties(trackId INTEGER, key TEXT, value TEXT)");
    schema.Reset();

    LogCapture capture("TrackPropertiesDB");
    TrackPropertiesDB reopened;
    reopened.Open(dir.Path());
    EXPECT_EQ(capture.Count("Creating table"), 0u);
    EXPECT_EQ(reopened.GetProperties(), (AllProperties{{1, {{"k", "v"}}}}));

    const std::string missing = "Could not open database file " + (dir / "missing/properties.db");
    try {
        reopened.Open(dir / "missing");
        FAIL() << "Open did not throw";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), missing);
    }
    EXPECT_EQ(capture.LevelOf(missing), 50);
}

TEST_F(TrackPropertiesDBTest, WritesTouchOnlyTheirTrackAndKeys) {
    const std::string odd = "it's \"quoted\", ünïcode; DROP TABLE properties";
    db_.SetTrackProperties(1, {{"name", "cam 1"}, {"site", "north"}, {"", odd}});
    db_.SetTrackProperties(2, {{"name", "cam 2"}, {"site", "south"}});
    db_.SetTrackProperties(-3, {});
    EXPECT_EQ(db_.GetProperties(),
              (AllProperties{{1, {{"name", "cam 1"}, {"site", "north"}, {"", odd}}},
                             {2, {{"name", "cam 2"}, {"site", "south"}}}}));

    // An update never creates a row.
    db_.UpdateTrackProperties(1, {{"name", "gate"}, {"missing", "x"}});
    db_.UpdateTrackProperties(2, {});
    EXPECT_EQ(db_.GetProperties()[1], (Properties{{"name", "gate"}, {"site", "north"}, {"", odd}}));
    EXPECT_EQ(db_.GetProperties()[2]["name"], "cam 2");
    EXPECT_EQ(CountRows(raw_), 5);

    db_.RemoveTrackProperties(1, {"site", "missing", ""});
    db_.RemoveTrackProperties(2, {});
    EXPECT_EQ(db_.GetProperties(), (AllProperties{{1, {{"name", "gate"}}},
                                                  {2, {{"name", "cam 2"}, {"site", "south"}}}}));

    db_.RemoveAll(2);
    db_.RemoveAll(42);
    EXPECT_EQ(db_.GetProperties(), (AllProperties{{1, {{"name", "gate"}}}}));
}

TEST_F(TrackPropertiesDBTest, DuplicateRowsLoadAsTheFirstOneRead) {
    db_.SetTrackProperties(1, {{"k", "first"}});
    db_.SetTrackProperties(1, {{"k", "second"}});
    EXPECT_EQ(CountRows(raw_), 2);
    EXPECT_EQ(db_.GetProperties()[1]["k"], "first");
    // Both rows of the key go with one removal.
    db_.RemoveTrackProperties(1, {"k"});
    EXPECT_EQ(CountRows(raw_), 0);
}

TEST_F(TrackPropertiesDBTest, AFailingRowRollsTheWholeCallBack) {
    db_.SetTrackProperties(1, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
    const AllProperties before = db_.GetProperties();
    // Armed from another connection, after the statements were prepared.
    raw_.Execute(
        "CREATE TRIGGER failInsert BEFORE INSERT ON properties WHEN NEW.key == 'bad' "
        "BEGIN SELECT RAISE(ABORT, 'injected insert failure'); END;"
        "CREATE TRIGGER failUpdate BEFORE UPDATE ON properties WHEN NEW.value == 'bad' "
        "BEGIN SELECT RAISE(ABORT, 'injected update failure'); END;"
        "CREATE TRIGGER failDelete BEFORE DELETE ON properties WHEN OLD.key == 'c' "
        "BEGIN SELECT RAISE(ABORT, 'injected delete failure'); END;");

    // Map order puts "a" first: its row is written before the failing one.
    try {
        db_.SetTrackProperties(2, {{"a", "x"}, {"bad", "x"}});
        FAIL() << "the injected failure did not surface";
    } catch (const SQLiteError& e) {
        EXPECT_NE(std::string(e.what()).find("injected insert failure"), std::string::npos);
    }
    EXPECT_THROW(db_.UpdateTrackProperties(1, {{"a", "new"}, {"b", "bad"}}), SQLiteError);
    EXPECT_THROW(db_.RemoveTrackProperties(1, {"a", "c"}), SQLiteError);
    EXPECT_EQ(db_.GetProperties(), before);

    // Nothing was left half-done: the next calls work.
    db_.UpdateTrackProperties(1, {{"a", "new"}});
    EXPECT_EQ(db_.GetProperties()[1]["a"], "new");
}

}  // namespace
