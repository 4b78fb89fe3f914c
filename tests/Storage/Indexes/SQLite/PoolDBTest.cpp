#include "Storage/Indexes/SQLite/PoolDB.h"

#include <gtest/gtest.h>

#include <set>
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

namespace {

constexpr long kFileSize = 1 << 20;

// AddFiles takes a vector or a set: a braced list must name one.
using Files = std::vector<ChunkFile>;

ChunkFile PoolFile(long number) {
    return ChunkFile(number, 8, kFileSize, 0);
}

// The rows of `sql`, every column as text, columns joined by '|'.
std::vector<std::string> Rows(Database& db, const std::string& sql) {
    Statement query(db, sql);
    std::vector<std::string> rows;
    for (query.Execute(); !query.IsDone(); query.Next()) {
        rows.push_back(query.GetTextValue(0));
    }
    return rows;
}

class PoolDBTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(db_.Open(dir_.Path()));
        ASSERT_TRUE(raw_.Open(dir_ / "pool.db"));
    }

    // "number/directory/status/fromEmptyFile" per row, by file number.
    std::vector<std::string> FileRows() {
        return Rows(raw_,
                    "SELECT fileNumber || '/' || directoryNumber || '/' || status || '/' || "
                    "fromEmptyFile FROM files ORDER BY fileNumber");
    }

    TempDir dir_;
    PoolDB db_;
    Database raw_;  // a second connection, reading behind PoolDB's back
};

TEST(PoolDBOpen, CreatesExactlyTheSchemaOnceAndReopenKeepsIt) {
    TempDir dir;
    {
        LogCapture capture("PoolDB");
        PoolDB db;
        ASSERT_TRUE(db.Open(dir.Path()));
        EXPECT_EQ(db.GetDBFile(), dir / "pool.db");
        EXPECT_EQ(PoolDB::GetDBFile(dir.Path()), dir / "pool.db");
        for (const char* table : {"files", "status"}) {
            std::string line =
                std::string("Creating table \"") + table + "\" on database " + (dir / "pool.db");
            EXPECT_TRUE(capture.HasExactly(line)) << line;
            EXPECT_EQ(capture.LevelOf(line), 20);
        }
        // Commits are durable (FULL) whatever the usual settings say: the
        // pool's files are renamed only after their lending is on disk.
        EXPECT_EQ(Rows(db.GetDb(), "PRAGMA synchronous"), std::vector<std::string>{"2"});
        EXPECT_EQ(Rows(db.GetDb(), "PRAGMA wal_autocheckpoint"), std::vector<std::string>{"4000"});
        db.AddFiles(Files{PoolFile(1)});
        db.SetPoolDirectory("/pool");
        db.SetRestoringStatus(3);
    }

    Database raw;
    ASSERT_TRUE(raw.Open(dir / "pool.db"));
    EXPECT_EQ(Rows(raw, "SELECT name || ': ' || sql FROM sqlite_master ORDER BY name"),
              (std::vector<std::string>{
                  "fileNumberIndex: CREATE UNIQUE INDEX fileNumberIndex ON files(fileNumber)",
                  "files: CREATE TABLE files(fileNumber INTEGER, fileNameSize INTEGER, fileSize "
                  "INTEGER, directoryNumber INTEGER, status INTEGER, fromEmptyFile INTEGER)",
                  "status: CREATE TABLE status(moving INTEGER, restoring INTEGER,poolDirectory "
                  "TEXT,tracksDirectory TEXT)",
              }));
    EXPECT_EQ(Rows(raw, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});

    LogCapture capture("PoolDB");
    PoolDB reopened;
    ASSERT_TRUE(reopened.Open(dir.Path()));
    EXPECT_EQ(capture.Count("Creating table"), 0u);
    EXPECT_EQ(reopened.GetNumberFiles(), 1);
    EXPECT_EQ(reopened.GetPoolDirectory(), "/pool");
    EXPECT_EQ(reopened.GetRestoringStatus(), 3);
    EXPECT_EQ(Rows(raw, "SELECT COUNT(*) FROM status"), std::vector<std::string>{"1"});
}

TEST(PoolDBOpen, AFailedOpenReturnsFalseAndLaterCallsThrow) {
    TempDir dir;
    LogCapture capture("PoolDB");
    PoolDB db;
    EXPECT_FALSE(db.Open(dir / "missing"));
    EXPECT_FALSE(db.IsOpen());
    std::string line = "Could not open database file " + (dir / "missing/pool.db");
    EXPECT_TRUE(capture.HasExactly(line)) << line;
    EXPECT_EQ(capture.LevelOf(line), 50);
    EXPECT_THROW(db.GetNumberFiles(), SQLiteError);
    EXPECT_THROW(db.MoveToTrack({PoolFile(1)}, 4), SQLiteError);
    EXPECT_THROW(db.CloseMoveTransaction(), SQLiteError);
}

TEST_F(PoolDBTest, NewFilesAreFreeEmptyAndNotMoving) {
    EXPECT_EQ(db_.GetNumberFiles(), 0);
    EXPECT_TRUE(db_.GetMovingFiles().empty());
    EXPECT_EQ(db_.GetMovingStatus(), 0);
    EXPECT_EQ(db_.GetRestoringStatus(), 0);
    EXPECT_EQ(db_.GetPoolDirectory(), "");
    EXPECT_EQ(db_.GetTracksDirectory(), "");

    // Whatever the caller's values say, a new file is free and empty.
    db_.AddFiles(Files{ChunkFile(2, 8, kFileSize, 9, 9, false)});
    db_.AddFiles(std::set<ChunkFile>{PoolFile(3), PoolFile(1)});
    EXPECT_EQ(db_.GetNumberFiles(), 3);
    EXPECT_EQ(FileRows(), (std::vector<std::string>{"1/0/0/1", "2/0/0/1", "3/0/0/1"}));
    std::vector<ChunkFile> all = db_.GetAllFiles();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0], PoolFile(2)) << all[0];
    EXPECT_TRUE(all[0].IsFromEmptyFile());
    EXPECT_TRUE(db_.GetMovingFiles().empty());
}

TEST_F(PoolDBTest, MovesAndReturnsStayPendingUntilClosed) {
    db_.AddFiles(Files{PoolFile(1), PoolFile(2), PoolFile(3)});

    db_.MoveToTrack({PoolFile(1), PoolFile(3)}, 7);
    EXPECT_EQ(FileRows(), (std::vector<std::string>{"1/7/7/1", "2/0/0/1", "3/7/7/1"}));
    std::vector<ChunkFile> moving = db_.GetMovingFiles();
    ASSERT_EQ(moving.size(), 2u);
    EXPECT_EQ(moving[0], ChunkFile(1, 8, kFileSize, 7, 7)) << moving[0];
    EXPECT_EQ(moving[1].GetFifthValue(), 7);
    EXPECT_EQ(db_.GetAllFiles()[0], ChunkFile(1, 8, kFileSize, 7)) << "no status in GetAllFiles";

    db_.CloseMoveTransaction();
    EXPECT_TRUE(db_.GetMovingFiles().empty());
    EXPECT_EQ(FileRows(), (std::vector<std::string>{"1/7/0/1", "2/0/0/1", "3/7/0/1"}));

    // A return records the track left in the status, directory 0 for the
    // direction, and whether the file still holds chunk data.
    db_.ReturnToPool({ChunkFile(1, 8, kFileSize, 7, 0, false), ChunkFile(3, 8, kFileSize, 7)});
    EXPECT_EQ(FileRows(), (std::vector<std::string>{"1/0/7/0", "2/0/0/1", "3/0/7/1"}));
    moving = db_.GetMovingFiles();
    ASSERT_EQ(moving.size(), 2u);
    EXPECT_EQ(moving[0], ChunkFile(1, 8, kFileSize, 0, 7)) << moving[0];
    EXPECT_FALSE(moving[0].IsFromEmptyFile());
    EXPECT_TRUE(moving[1].IsFromEmptyFile());

    db_.CloseMoveTransaction();
    EXPECT_TRUE(db_.GetMovingFiles().empty());
    db_.MoveToTrack({}, 7);
    EXPECT_EQ(FileRows(), (std::vector<std::string>{"1/0/0/0", "2/0/0/1", "3/0/0/1"}));
}

TEST_F(PoolDBTest, StatusRowRoundTripsAndStripsOneTrailingNul) {
    db_.SetMovingStatus(-4);
    db_.SetRestoringStatus(12);
    db_.SetPoolDirectory(std::string("/data/pool\0", 11));
    db_.SetTracksDirectory(std::string("/data/tracks\0\0", 14));
    EXPECT_EQ(db_.GetMovingStatus(), -4);
    EXPECT_EQ(db_.GetRestoringStatus(), 12);
    EXPECT_EQ(db_.GetPoolDirectory(), "/data/pool");
    EXPECT_EQ(db_.GetTracksDirectory(), std::string("/data/tracks\0", 13)) << "only one NUL";
    EXPECT_EQ(Rows(raw_, "SELECT COUNT(*) FROM status"), std::vector<std::string>{"1"});

    EXPECT_EQ(PoolDB::CorrectSQLiteBackSlashZero(""), "");
    EXPECT_EQ(PoolDB::CorrectSQLiteBackSlashZero(std::string(1, '\0')), "");
    EXPECT_EQ(PoolDB::CorrectSQLiteBackSlashZero(std::string("a\0b", 3)), std::string("a\0b", 3));

    raw_.Execute("DELETE FROM status");
    LogCapture capture("PoolDB");
    db_.SetMovingStatus(5);
    EXPECT_EQ(db_.GetMovingStatus(), 0);
    EXPECT_EQ(db_.GetRestoringStatus(), 0);
    EXPECT_EQ(db_.GetPoolDirectory(), "");
    EXPECT_EQ(db_.GetTracksDirectory(), "");
    for (const char* getter :
         {"GetMovingStatus", "GetRestoringStatus", "GetTracksDirectory", "GetPoolDirectory"}) {
        std::string line = std::string(getter) + ": statement is empty";
        EXPECT_TRUE(capture.HasExactly(line)) << line;
        EXPECT_EQ(capture.LevelOf(line), 40);
    }
}

TEST_F(PoolDBTest, AFailingRowRollsTheWholeCallBack) {
    db_.AddFiles(Files{PoolFile(1), PoolFile(2), PoolFile(3)});
    db_.MoveToTrack({PoolFile(3)}, 4);
    db_.CloseMoveTransaction();
    const std::vector<std::string> before = FileRows();

    // A number already present fails on the unique index after 5 went in.
    EXPECT_THROW(db_.AddFiles(Files{PoolFile(5), PoolFile(2)}), SQLiteError);
    EXPECT_THROW(db_.AddFiles(std::set<ChunkFile>{PoolFile(3), PoolFile(0)}), SQLiteError);
    EXPECT_EQ(db_.GetNumberFiles(), 3);

    // Armed from another connection, after PoolDB prepared its statements.
    raw_.Execute(
        "CREATE TRIGGER failUpdate BEFORE UPDATE ON files WHEN OLD.fileNumber == 2 "
        "BEGIN SELECT RAISE(ABORT, 'injected pool failure'); END;");
    try {
        db_.MoveToTrack({PoolFile(1), PoolFile(2)}, 8);
        FAIL() << "the injected failure did not surface";
    } catch (const SQLiteError& e) {
        EXPECT_NE(std::string(e.what()).find("injected pool failure"), std::string::npos);
    }
    EXPECT_THROW(db_.ReturnToPool({ChunkFile(3, 8, kFileSize, 4), ChunkFile(2, 8, kFileSize, 4)}),
                 SQLiteError);
    EXPECT_EQ(FileRows(), before);
    EXPECT_TRUE(db_.GetMovingFiles().empty());

    // Nothing was left half-done: the next calls work.
    db_.MoveToTrack({PoolFile(1)}, 8);
    EXPECT_EQ(db_.GetMovingFiles().size(), 1u);
}

}  // namespace
