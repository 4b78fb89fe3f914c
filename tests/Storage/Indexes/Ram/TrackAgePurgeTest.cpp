#include <gtest/gtest.h>

#include <stdexcept>

#include "Platform/SQLite/Database.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"
#include "tests/Support/SyncPoints.h"

using loopstore::test::ChunkWriter;
using loopstore::test::ExpectChunksReadable;
using loopstore::test::Sec;
using loopstore::test::TrackFixture;
using Moreld::Time::TimePoint;

namespace {

// Chunks of 300 bytes, one per second from `first`, in 1000-byte files:
// three chunks a file, so block keys are 0, 3, 6, ...
void WriteChunks(LoopRecordingFileManager& m, const std::string& root, int first, int count) {
    ChunkWriter writer(m, root);
    for (int i = first; i < first + count; ++i)
        writer.Write(Sec(i), Sec(1), 300);
}

std::vector<TimePoint> Keys(const LoopRecordingFileManager& m) {
    std::vector<TimePoint> keys;
    for (const auto& [key, block] : m.GetBlocks())
        keys.push_back(key);
    return keys;
}

ChunkFile FileOf(const LoopRecordingFileManager& m, TimePoint key) {
    return m.GetBlocks().at(key).GetChunkFile();
}

}  // namespace

TEST(TrackAgePurge, GivesBackWhollyExpiredUnprotectedBlocksAsEmptyFilesDurably) {
    TrackFixture track(5, 5, 1000);
    auto m = track.NewManagerWithFiles();
    WriteChunks(*m, track.Root(), 0, 13);  // blocks 0, 3, 6, 9, 12
    m->Protect(7, Sec(3), Sec(4));         // holds block 3
    const ChunkFile first = FileOf(*m, Sec(0));
    const ChunkFile third = FileOf(*m, Sec(6));
    const unsigned long sizeBefore = m->GetTrackSize();

    // Block 6 ends exactly at the cutoff: all of it is older. Block 9 is not.
    EXPECT_EQ(m->PurgeOlderThan(Sec(9)), 2u);
    EXPECT_EQ(Keys(*m), (std::vector<TimePoint>{Sec(3), Sec(9), Sec(12)}));
    EXPECT_EQ(m->GetBeginningOfTrack(), Sec(9));
    EXPECT_EQ(m->GetTrackSize(), sizeBefore - 6 * 300);
    ASSERT_EQ(m->GetEmptyFiles().size(), 2u);
    EXPECT_EQ(m->GetEmptyFiles()[0], first);
    EXPECT_EQ(m->GetEmptyFiles()[1], third);
    EXPECT_EQ(m->PurgeOlderThan(Sec(9)), 0u);  // nothing more is that old

    // Recycling order: the current block fills, then the purged files in the
    // order they were given back.
    WriteChunks(*m, track.Root(), 13, 5);
    EXPECT_EQ(FileOf(*m, Sec(15)), first);
    ExpectChunksReadable(*m, track.Root());

    // The database says what the index says: a restart brings nothing back.
    const std::vector<TimePoint> keys = Keys(*m);
    m.reset();
    m = track.OpenManager();
    EXPECT_EQ(Keys(*m), keys);
    EXPECT_EQ(m->GetEmptyFiles().size(), 1u);
    ExpectChunksReadable(*m, track.Root());
}

TEST(TrackAgePurge, NeverTakesTheFileBeingWrittenAndSurvivesACrashBeforeItsCommit) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    TrackFixture track(6, 4, 1000);
    auto m = track.NewManagerWithFiles();
    m->BeginWriting();
    ChunkWriter writer(*m, track.Root());
    for (int i = 0; i < 5; ++i)  // blocks 0 and 3; the writer is in block 3
        writer.Write(Sec(i), Sec(1), 300);
    EXPECT_EQ(m->PurgeOlderThan(Sec(100)), 1u);
    EXPECT_EQ(Keys(*m), std::vector<TimePoint>{Sec(3)});
    writer.Finish();
    m->EndWriting();

    // A crash after the index changed but before the database did: the
    // next start finds the blocks as they were, and purges them again.
    auto& sync = Moreld::Tools::SyncPoint::Instance();
    sync.SetCallback("TrackAgePurge::Run:IndexUpdated",
                     [] { throw std::runtime_error("crash before the commit"); });
    EXPECT_THROW(m->PurgeOlderThan(Sec(100)), std::runtime_error);
    sync.ClearAll();
    const TimePoint end = m->GetEndOfTrack();
    m.reset();
    m = track.OpenManager();
    EXPECT_EQ(Keys(*m), std::vector<TimePoint>{Sec(3)});
    ExpectChunksReadable(*m, track.Root());
    EXPECT_EQ(m->PurgeOlderThan(Sec(100)), 1u);
    EXPECT_TRUE(m->GetBlocks().empty());
    EXPECT_EQ(m->GetEmptyFiles().size(), 4u);
    // An emptied track still goes on after its end.
    EXPECT_EQ(m->GetEndOfTrack(), end);
    EXPECT_THROW(m->Append(end - Sec(1), Sec(1), 300), std::runtime_error);
}

TEST(TrackAgePurge, MaxAgeIsDurableRemovableAndCheckedAndOldDatabasesOpen) {
    TrackFixture track(7, 2, 1000);
    auto m = track.NewManagerWithFiles();
    EXPECT_EQ(m->GetMaxAge(), TimePoint());
    m->SetMaxAge(Sec(72 * 3600));
    EXPECT_THROW(m->SetMaxAge(Sec(-1)), std::runtime_error);
    EXPECT_EQ(m->GetMaxAge(), Sec(72 * 3600));
    m.reset();
    m = track.OpenManager();
    EXPECT_EQ(m->GetMaxAge(), Sec(72 * 3600));
    m->SetMaxAge(TimePoint());
    m.reset();
    m = track.OpenManager();
    EXPECT_EQ(m->GetMaxAge(), TimePoint());

    // A database written before tracks had a maximum age.
    m->SetMaxAge(Sec(60));
    m.reset();
    {
        Moreld::SQLite::Database db;
        ASSERT_TRUE(db.Open(track.DbDir() + "/7.db"));
        db.Execute("DROP TABLE retention", false);
    }
    m = track.OpenManager();
    EXPECT_EQ(m->GetMaxAge(), TimePoint());
    EXPECT_EQ(m->GetEmptyFiles().size(), 2u);
}
