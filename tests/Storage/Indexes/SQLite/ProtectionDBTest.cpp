#include "Storage/Indexes/SQLite/ProtectionDB.h"

#include <gtest/gtest.h>

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
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;
using Entry = ProtectionDB::ProtectionEntry;

namespace {

TimePoint At(long ns) {
    return TimePoint::FromNanoseconds(ns);
}

std::vector<long> Ids(const std::vector<Entry>& entries) {
    std::vector<long> ids;
    for (const Entry& entry : entries) {
        ids.push_back(entry.protectionId);
    }
    return ids;
}

TEST(ProtectionDBOpen, CreatesExactlyTheSchemaOnceAndReopenKeepsRows) {
    TempDir dir;
    const std::string path = dir / "protections.db";
    {
        LogCapture capture("ProtectionDB");
        ProtectionDB db;
        db.Open(dir.Path());
        std::string line = "Creating table \"protections\" on database " + path;
        EXPECT_TRUE(capture.HasExactly(line)) << line;
        EXPECT_EQ(capture.LevelOf(line), 20);
        db.Protect(3, 1, At(10), At(20));
    }

    Database raw;
    ASSERT_TRUE(raw.Open(path));
    Statement schema(raw, "SELECT name, sql FROM sqlite_master ORDER BY name");
    std::vector<std::string> objects;
    for (schema.Execute(); !schema.IsDone(); schema.Next()) {
        objects.push_back(schema.GetTextValue(0) + ": " + schema.GetTextValue(1));
    }
    schema.Reset();
    EXPECT_EQ(
        objects,
        (std::vector<std::string>{
            "protectionIndex: CREATE UNIQUE INDEX protectionIndex ON protections(protectionId)",
            "protections: CREATE TABLE protections(trackId INTEGER, protectionId INTEGER, "
            "timepointIn INTEGER, timepointOut INTEGER, label TEXT, expiresAt INTEGER)",
        }));

    LogCapture capture("ProtectionDB");
    ProtectionDB reopened;
    reopened.Open(dir.Path());
    EXPECT_EQ(capture.Count("Creating table"), 0u);
    EXPECT_EQ(reopened.GetProtections(), (std::vector<Entry>{{3, 1, At(10), At(20)}}));
    Statement journal(reopened.GetDb(), "PRAGMA journal_mode");
    journal.Execute();
    EXPECT_EQ(journal.GetTextValue(0), "wal");
}

TEST(ProtectionDBOpen, AnUnopenableFileThrowsAndLogs) {
    TempDir dir;
    LogCapture capture("ProtectionDB");
    ProtectionDB db;
    const std::string line = "Could not open database file " + (dir / "missing/protections.db");
    try {
        db.Open(dir / "missing");
        FAIL() << "Open did not throw";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), line);
    }
    EXPECT_EQ(capture.LevelOf(line), 50);
}

TEST(ProtectionDB, RowsRoundTripInInsertionOrderAndLookupsFindTheirTrack) {
    TempDir dir;
    ProtectionDB db;
    db.Open(dir.Path());
    const long big = 1'795'000'000'123'456'789;
    // Ids out of order: listing must follow the rows, not the id index.
    db.Protect(12, 5, At(-100), At(big));
    db.Protect(4, 2, At(0), At(1));
    db.Protect(12, 9, At(7), At(7));
    try {
        db.Protect(99, 2, At(1), At(2));
        FAIL() << "a protection id was stored twice";
    } catch (const SQLiteError& e) {
        EXPECT_NE(std::string(e.what()).find("UNIQUE"), std::string::npos) << e.what();
    }

    EXPECT_EQ(db.GetProtections(),
              (std::vector<Entry>{
                  {12, 5, At(-100), At(big)}, {4, 2, At(0), At(1)}, {12, 9, At(7), At(7)}}));
    EXPECT_EQ(db.GetTrackIdFromProtectionId(2), 4);
    EXPECT_EQ(db.GetTrackIdFromProtectionId(9), 12);
    EXPECT_EQ(db.GetTrackIdFromProtectionId(3), 0) << "unknown id";

    db.UnProtect(5);
    db.UnProtect(77);
    EXPECT_EQ(Ids(db.GetProtections()), (std::vector<long>{2, 9}));
    EXPECT_EQ(db.GetTrackIdFromProtectionId(5), 0);
    db.Protect(1, 5, At(1), At(2));
    EXPECT_EQ(Ids(db.GetProtections()), (std::vector<long>{2, 9, 5}));
}

TEST(ProtectionDBOpen, AStoreMadeBeforeLabelsOpensWithItsRowsAndTakesTerms) {
    TempDir dir;
    {
        Database old;
        ASSERT_TRUE(old.Open(dir / "protections.db"));
        old.Execute(
            "CREATE TABLE protections(trackId INTEGER, protectionId INTEGER, timepointIn "
            "INTEGER, timepointOut INTEGER)");
        old.Execute("INSERT INTO protections VALUES (2, 7, 10, 20)");
    }
    const TimePoint expires = At(1'795'000'000'000'000'000);
    {
        LogCapture capture("ProtectionDB");
        ProtectionDB db;
        db.Open(dir.Path());
        EXPECT_EQ(capture.Count("Adding column label to table \"protections\""), 1u);
        EXPECT_EQ(db.GetProtections(), (std::vector<Entry>{{2, 7, At(10), At(20)}}));
        db.Protect(2, 8, At(30), At(40), {"door", expires});
        db.Protect(3, 9, At(30), At(40), {"", std::nullopt});
    }
    LogCapture capture("ProtectionDB");
    ProtectionDB reopened;
    reopened.Open(dir.Path());
    EXPECT_EQ(capture.Count("Adding column"), 0u);
    EXPECT_EQ(reopened.GetProtections(),
              (std::vector<Entry>{{2, 7, At(10), At(20)},
                                  {2, 8, At(30), At(40), {"door", expires}},
                                  {3, 9, At(30), At(40)}}));
    EXPECT_EQ(reopened.GetTrackIdFromProtectionId(8), 2);
}

TEST(ProtectionDB, LookupsLeaveNoStaleReadSnapshot) {
    TempDir dir;
    ProtectionDB db;
    db.Open(dir.Path());
    db.Protect(1, 1, At(0), At(1));
    db.Protect(1, 2, At(0), At(1));
    ASSERT_EQ(db.GetProtections().size(), 2u);
    // Stops on its first row: the statement is still running until reset.
    ASSERT_EQ(db.GetTrackIdFromProtectionId(1), 1);

    // A statement left on a row would pin the old snapshot and hide this.
    Database other;
    ASSERT_TRUE(other.Open(dir / "protections.db"));
    other.Execute("INSERT INTO protections VALUES (6, 3, 0, 1, 'x', NULL)");
    EXPECT_EQ(Ids(db.GetProtections()), (std::vector<long>{1, 2, 3}));
    EXPECT_EQ(db.GetTrackIdFromProtectionId(3), 6);
}

}  // namespace
