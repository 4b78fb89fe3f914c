#include "Storage/Indexes/SQLite/TrackDB.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>
#include <vector>

#include "Platform/Logging/LogCapture.h"
#include "Platform/SQLite/Database.h"
#include "Platform/SQLite/SQLiteError.h"
#include "Platform/SQLite/Statement.h"
#include "tests/Support/TempDir.h"

using FileSystem::Chunk;
using loopstore::test::TempDir;
using Moreld::SQLite::Database;
using Moreld::SQLite::SQLiteError;
using Moreld::SQLite::Statement;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {

constexpr long kTrack = 12;
constexpr long kFileSize = 1 << 20;

ChunkFile File(long number, bool fromEmptyFile, long directory = kTrack) {
    return ChunkFile(number, 8, kFileSize, directory, 0, fromEmptyFile);
}

Chunk ChunkAt(long ns, const ChunkFile& file, unsigned long offset = 16, unsigned long size = 100) {
    return Chunk(TimePoint::FromNanoseconds(ns), TimePoint::FromNanoseconds(10),
                 ChunkLocation(file, offset, size, 7));
}

// Reads the track database behind TrackDB's back, through its own connection.
class TrackDBTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(db_.Open(dir_.Path(), kTrack)); }

    std::vector<std::string> Column(const std::string& sql) {
        Database raw;
        EXPECT_TRUE(raw.Open(dir_ / "12.db"));
        Statement query(raw, sql);
        std::vector<std::string> values;
        for (query.Execute(); !query.IsDone(); query.Next()) {
            values.push_back(query.GetTextValue(0));
        }
        return values;
    }

    std::set<long> ChunkTimes() {
        std::set<long> times;
        for (const Chunk& chunk : db_.GetAllChunks()) {
            times.insert(chunk.timepoint.ToNanoseconds());
        }
        return times;
    }

    std::set<long> EmptyFileNumbers() {
        std::set<long> numbers;
        for (const ChunkFile& file : db_.GetAllEmptyFiles()) {
            EXPECT_TRUE(file.IsFromEmptyFile());
            numbers.insert(file.GetFileNumber());
        }
        return numbers;
    }

    TempDir dir_;
    TrackDB db_;
};

TEST(TrackDBOpen, CreatesExactlyTheSchemaOnceAndReopenKeepsIt) {
    TempDir dir;
    {
        LogCapture capture("TrackDB");
        TrackDB db;
        EXPECT_FALSE(db.IsOpen());
        ASSERT_TRUE(db.Open(dir.Path(), kTrack));
        EXPECT_TRUE(db.IsOpen());
        EXPECT_EQ(db.GetDBFile(), dir / "12.db");
        for (const char* table : {"chunks", "emptyFiles", "status", "retention"}) {
            std::string line =
                std::string("Creating table \"") + table + "\" on database " + (dir / "12.db");
            EXPECT_TRUE(capture.HasExactly(line)) << line;
            EXPECT_EQ(capture.LevelOf(line), 20);
        }
        EXPECT_FALSE(db.IsActive()) << "a new track starts inactive";
        db.SetActiveMode(true);
        EXPECT_TRUE(db.IsActive());
    }

    Database raw;
    ASSERT_TRUE(raw.Open(dir / "12.db"));
    Statement schema(raw, "SELECT name, sql FROM sqlite_master ORDER BY name");
    std::vector<std::pair<std::string, std::string>> objects;
    for (schema.Execute(); !schema.IsDone(); schema.Next()) {
        objects.emplace_back(schema.GetTextValue(0), schema.GetTextValue(1));
    }
    schema.Reset();
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"chunks",
         "CREATE TABLE chunks(fileNumber INTEGER, fileNameSize INTEGER, fileSize INTEGER, "
         "directoryNumber INTEGER, offset INTEGER, chunkIndex INTEGER, timepoint INTEGER, "
         "duration INTEGER)"},
        {"emptyFiles",
         "CREATE TABLE emptyFiles(fileNumber INTEGER, fileNameSize INTEGER, fileSize INTEGER, "
         "directoryNumber INTEGER)"},
        {"fileNumberIndexChunks", "CREATE INDEX fileNumberIndexChunks ON chunks(fileNumber)"},
        {"fileNumberIndexEmptyFiles",
         "CREATE INDEX fileNumberIndexEmptyFiles ON emptyFiles(fileNumber)"},
        {"retention", "CREATE TABLE retention(maxAge INTEGER)"},
        {"status", "CREATE TABLE status(active INTEGER )"},
    };
    EXPECT_EQ(objects, expected);
    Statement journal(raw, "PRAGMA journal_mode");
    journal.Execute();
    EXPECT_EQ(journal.GetTextValue(0), "wal");
    journal.Reset();

    LogCapture capture("TrackDB");
    TrackDB reopened;
    ASSERT_TRUE(reopened.Open(dir.Path(), kTrack));
    EXPECT_EQ(capture.Count("Creating table"), 0u);
    EXPECT_TRUE(reopened.IsActive()) << "the status row survives a reopen";
    Statement rows(raw, "SELECT COUNT(*) FROM status");
    rows.Execute();
    EXPECT_EQ(rows.GetIntegerValue(0), 1);
}

TEST(TrackDBOpen, FailsAndLogsOnAMissingDirectory) {
    TempDir dir;
    LogCapture capture("TrackDB");
    TrackDB db;
    EXPECT_FALSE(db.Open(dir / "missing", 5));
    EXPECT_FALSE(db.IsOpen());
    std::string line = "Could not open database file " + (dir / "missing/5.db");
    EXPECT_TRUE(capture.HasExactly(line)) << line;
    EXPECT_EQ(capture.LevelOf(line), 50);
}

TEST_F(TrackDBTest, ChunkIndexColumnHoldsTheSizeAndRowsRoundTrip) {
    const ChunkFile file = File(42, true);
    Chunk chunk(TimePoint::FromNanoseconds(1'795'000'000'123'456'789),
                TimePoint::FromNanoseconds(40'000'000), TimePoint::FromNanoseconds(999),
                ChunkLocation(file, 16, 4096, 3));
    chunk.sequenceNumber = 77;
    db_.Append(chunk);
    db_.Append(ChunkAt(-5, File(43, false)));

    EXPECT_EQ(Column("SELECT offset || '/' || chunkIndex FROM chunks WHERE fileNumber == 42"),
              std::vector<std::string>{"16/4096"});

    Chunk expected(chunk.timepoint, chunk.duration, ChunkLocation(File(42, false), 16, 4096, 0));
    std::vector<Chunk> all = db_.GetAllChunks();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0], expected) << all[0];
    EXPECT_EQ(all[0].location.size, 4096u);
    EXPECT_EQ(all[0].location.chunkIndex, 0u);
    EXPECT_FALSE(all[0].location.file.IsFromEmptyFile());
    EXPECT_EQ(all[0].sequenceNumber, 0u);
    EXPECT_EQ(all[1].timepoint, TimePoint::FromNanoseconds(-5));

    Chunk found = db_.Get(chunk.timepoint);
    EXPECT_EQ(found, expected);
    EXPECT_FALSE(found.location.file.IsFromEmptyFile());
    EXPECT_EQ(db_.Get(TimePoint::FromNanoseconds(1)), Chunk()) << "no chunk there";
}

TEST_F(TrackDBTest, SaveAndRemoveDropsWhatTheFirstFileFlagSays) {
    db_.AddEmptyFiles({File(1, true), File(2, true)});
    db_.SaveAndRemove({ChunkAt(100, File(3, false)), ChunkAt(110, File(3, false), 116)});
    // Same number in another directory: another file, never touched.
    db_.Append(ChunkAt(50, File(3, false, kTrack + 1)));
    db_.SaveAndRemove({});
    EXPECT_EQ(ChunkTimes(), (std::set<long>{50, 100, 110}));

    {
        LogCapture capture("TrackDB");
        db_.SaveAndRemove({ChunkAt(200, File(1, true)), ChunkAt(210, File(1, false), 116)});
        EXPECT_TRUE(capture.HasExactly("Saving 2 chunks and removing empty file 00000001"));
        EXPECT_EQ(capture.LevelOf("Saving 2 chunks"), 10);
    }
    EXPECT_EQ(EmptyFileNumbers(), std::set<long>{2});
    EXPECT_EQ(ChunkTimes(), (std::set<long>{50, 100, 110, 200, 210}));

    {
        // File 3 is recycled: its old block goes, its new chunks stay.
        LogCapture capture("TrackDB");
        db_.SaveAndRemove({ChunkAt(300, File(3, false))});
        EXPECT_TRUE(
            capture.HasExactly("Saving 1 chunks and removing loop recording file 00000003"));
        EXPECT_EQ(capture.LevelOf("Saving 1 chunks"), 10);
    }
    EXPECT_EQ(ChunkTimes(), (std::set<long>{50, 200, 210, 300}));
    EXPECT_EQ(EmptyFileNumbers(), std::set<long>{2});

    // A later batch continuing an unflagged file also drops that file's
    // earlier rows: only the first chunk's file is looked at.
    db_.SaveAndRemove({ChunkAt(310, File(3, false), 116), ChunkAt(320, File(2, true))});
    EXPECT_EQ(ChunkTimes(), (std::set<long>{50, 200, 210, 310, 320}));
    EXPECT_EQ(EmptyFileNumbers(), std::set<long>{2});
}

// Rows per file, whatever their kind: a file must be listed once only,
// as empty or by the chunks of one block.
TEST_F(TrackDBTest, AFileIsNeverListedTwiceWhateverItsFlagSays) {
    auto rowsOf = [&](long number) {
        const std::string n = std::to_string(number);
        return Column("SELECT COUNT(*) FROM emptyFiles WHERE fileNumber = " + n).at(0) + "/" +
               Column("SELECT COUNT(*) FROM chunks WHERE fileNumber = " + n).at(0);
    };
    db_.AddEmptyFiles({File(1, true), File(2, true)});
    // A block opened on file 1 was never saved: recycling or clearing it
    // lists it as empty again, once.
    db_.RemoveAndAddAsEmptyFile(File(1, false));
    db_.Clear({File(1, false)});
    db_.AddEmptyFile(File(1, true));
    EXPECT_EQ(rowsOf(1), "1/0");
    // Its chunks, saved under either flag, replace the empty-file row.
    db_.SaveAndRemove({ChunkAt(100, File(1, false)), ChunkAt(110, File(1, false), 116)});
    EXPECT_EQ(rowsOf(1), "0/2");
    db_.AddEmptyFile(File(1, true));
    db_.SaveAndRemove({ChunkAt(200, File(1, true))});
    EXPECT_EQ(rowsOf(1), "0/1");
    // Giving back a file whose block was never saved: its empty-file row
    // goes even though the block's file is not flagged as empty.
    db_.RemoveFiles({File(2, false), File(1, true)});
    EXPECT_EQ(rowsOf(2), "0/0");
    EXPECT_EQ(rowsOf(1), "0/0");
}

TEST_F(TrackDBTest, RemoveFilesClearAndRemoveAndAddAsEmptyFile) {
    db_.AddEmptyFiles({File(1, true), File(2, true)});
    db_.SaveAndRemove({ChunkAt(100, File(3, false)), ChunkAt(110, File(3, false), 116)});
    db_.SaveAndRemove({ChunkAt(200, File(4, false))});
    db_.SaveAndRemove({ChunkAt(300, File(5, false))});

    // A flagged file goes from the empty files, an unflagged one loses its chunks.
    db_.RemoveFiles({File(1, true), File(3, false)});
    EXPECT_EQ(EmptyFileNumbers(), std::set<long>{2});
    EXPECT_EQ(ChunkTimes(), (std::set<long>{200, 300}));

    db_.Clear({File(4, false)});
    EXPECT_EQ(EmptyFileNumbers(), (std::set<long>{2, 4}));
    EXPECT_EQ(ChunkTimes(), std::set<long>{300});

    db_.RemoveAndAddAsEmptyFile(File(5, false));
    EXPECT_EQ(EmptyFileNumbers(), (std::set<long>{2, 4, 5}));
    EXPECT_TRUE(db_.GetAllChunks().empty());

    db_.RemoveEmptyFile(File(2, true, kTrack + 1));
    EXPECT_EQ(EmptyFileNumbers(), (std::set<long>{2, 4, 5})) << "other directory";
    db_.RemoveEmptyFile(File(2, true));
    EXPECT_EQ(EmptyFileNumbers(), (std::set<long>{4, 5}));
}

TEST_F(TrackDBTest, GetFilesFromTimePointHasInclusiveBounds) {
    db_.SaveAndRemove({ChunkAt(100, File(1, false)), ChunkAt(110, File(1, false), 116)});
    db_.SaveAndRemove({ChunkAt(200, File(2, false)), ChunkAt(210, File(2, false), 116)});
    db_.SaveAndRemove({ChunkAt(300, File(123456789, false))});
    auto at = [](long ns) { return TimePoint::FromNanoseconds(ns); };

    auto exact = db_.GetFilesFromTimePoint(at(200), at(200));
    ASSERT_EQ(exact.size(), 1u);
    EXPECT_EQ(exact.begin()->first, "00000002");
    EXPECT_EQ(exact.begin()->second, File(2, true));
    EXPECT_TRUE(exact.begin()->second.IsFromEmptyFile());

    auto range = db_.GetFilesFromTimePoint(at(110), at(300));
    std::vector<std::string> names;
    for (const auto& [name, file] : range) {
        names.push_back(name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"00000001", "00000002", "123456789"}));

    EXPECT_TRUE(db_.GetFilesFromTimePoint(at(111), at(199)).empty()) << "in a gap";
    EXPECT_TRUE(db_.GetFilesFromTimePoint(at(300), at(100)).empty()) << "reversed";
}

TEST_F(TrackDBTest, DestroyRemovesTheFileAndNothingComesBack) {
    LogCapture capture("TrackDB");
    db_.SaveAndRemove({ChunkAt(100, File(3, false))});
    ASSERT_TRUE(boost::filesystem::exists(dir_ / "12.db"));
    db_.Destroy();
    EXPECT_FALSE(db_.IsOpen());
    EXPECT_FALSE(boost::filesystem::exists(dir_ / "12.db"));
    EXPECT_FALSE(boost::filesystem::exists(dir_ / "12.db-wal"));
    // A new track with the same id starts empty.
    TrackDB again;
    ASSERT_TRUE(again.Open(dir_.Path(), 12));
    EXPECT_TRUE(again.GetAllChunks().empty());
    std::string line = "Database file " + (dir_ / "12.db") + " erased";
    EXPECT_TRUE(capture.HasExactly(line)) << line;
    EXPECT_EQ(capture.LevelOf(line), 30);
}

TEST_F(TrackDBTest, AFailureMidwayRollsTheWholeCallBack) {
    db_.AddEmptyFiles({File(1, true), File(2, true)});
    db_.SaveAndRemove({ChunkAt(100, File(3, false))});
    db_.SetActiveMode(true);
    {
        // Another connection arms the failure after TrackDB cached its statements.
        Database raw;
        ASSERT_TRUE(raw.Open(dir_ / "12.db"));
        raw.Execute(
            "CREATE TRIGGER failChunk BEFORE INSERT ON chunks WHEN NEW.timepoint == 666 "
            "BEGIN SELECT RAISE(ABORT, 'injected chunk failure'); END;"
            "CREATE TRIGGER failEmpty BEFORE INSERT ON emptyFiles WHEN NEW.fileNumber == 9 "
            "BEGIN SELECT RAISE(ABORT, 'injected file failure'); END;");
    }

    try {
        db_.SaveAndRemove({ChunkAt(400, File(1, true)), ChunkAt(410, File(1, false), 116),
                           ChunkAt(666, File(1, false), 216)});
        FAIL() << "the injected failure did not surface";
    } catch (const SQLiteError& e) {
        EXPECT_NE(std::string(e.what()).find("injected chunk failure"), std::string::npos);
        EXPECT_NE(std::string(e.what()).find("INSERT INTO chunks"), std::string::npos);
    }
    EXPECT_EQ(EmptyFileNumbers(), (std::set<long>{1, 2})) << "empty-file row came back";
    EXPECT_EQ(ChunkTimes(), std::set<long>{100});

    EXPECT_THROW(db_.AddEmptyFiles({File(7, true), File(9, true)}), SQLiteError);
    EXPECT_THROW(db_.Clear({File(3, false), File(9, false)}), SQLiteError);
    EXPECT_EQ(EmptyFileNumbers(), (std::set<long>{1, 2}));
    EXPECT_EQ(ChunkTimes(), std::set<long>{100});

    // Nothing was left half-done: the next calls work.
    db_.SaveAndRemove({ChunkAt(400, File(1, true)), ChunkAt(410, File(1, false), 116)});
    EXPECT_EQ(ChunkTimes(), (std::set<long>{100, 400, 410}));
    EXPECT_EQ(EmptyFileNumbers(), std::set<long>{2});
    EXPECT_TRUE(db_.IsActive());
}

}  // namespace
