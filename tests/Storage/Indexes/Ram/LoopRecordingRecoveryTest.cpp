#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Logging/LogCapture.h"
#include "Platform/SQLite/Database.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"

using loopstore::test::ChunkWriter;
using loopstore::test::ExpectChunksReadable;
using loopstore::test::Sec;
using loopstore::test::TrackFixture;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {

// Flips one byte of a file, as a torn or lost write would.
void CorruptByte(const std::string& path, off_t offset) {
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    char c = 0;
    ASSERT_EQ(pread(fd, &c, 1, offset), 1);
    c = static_cast<char>(c ^ 0x5a);
    ASSERT_EQ(pwrite(fd, &c, 1, offset), 1);
    close(fd);
}

struct Summary {
    std::vector<TimePoint> keys;
    std::vector<std::vector<std::pair<TimePoint, unsigned long>>> chunks;  // time point, offset
};

Summary Summarize(const LoopRecordingFileManager& m) {
    Summary s;
    for (const auto& [key, block] : m.GetBlocks()) {
        s.keys.push_back(key);
        s.chunks.emplace_back();
        for (const auto& [tp, chunk] : block.GetChunks()) {
            s.chunks.back().emplace_back(tp, chunk.location.offset);
        }
    }
    return s;
}

// Writes `count` chunks of 300 bytes, one per second, into 1000-byte files
// (three chunks per file).
void WriteChunks(LoopRecordingFileManager& m, const std::string& root, int first, int count) {
    ChunkWriter writer(m, root);
    for (int i = first; i < first + count; ++i)
        writer.Write(Sec(i), Sec(1), 300);
}

}  // namespace

TEST(LoopRecordingRecovery, ReopeningRebuildsTheSameIndex) {
    TrackFixture track(4, 4, 1000);
    Summary before;
    TimePoint end;
    {
        auto m = track.NewManagerWithFiles();
        WriteChunks(*m, track.Root(), 0, 20);  // loops: 4 files keep chunks 9 to 19
        before = Summarize(*m);
        end = m->GetEndOfTrack();
        ASSERT_EQ(before.keys.size(), 4u);
    }
    auto m = track.OpenManager();
    Summary after = Summarize(*m);
    EXPECT_EQ(after.keys, before.keys);
    EXPECT_EQ(after.chunks, before.chunks);
    EXPECT_EQ(m->GetBeginningOfTrack(), before.keys.front());
    EXPECT_EQ(m->GetEndOfTrack(), end);
    EXPECT_TRUE(m->CheckInvariant());
    EXPECT_EQ(m->GetMaxTrackSize(), 4000u);
    // Counters are numbered again, so counts hold across the restart.
    EXPECT_EQ(m->GetNumberOfChunks(Sec(0), Sec(100)), 11u);  // chunks 9 to 19
    EXPECT_EQ(m->GetAccumulatedDuration(Sec(0), Sec(100)), Sec(11));
    ExpectChunksReadable(*m, track.Root());

    // A reopened track keeps recording where it stopped.
    WriteChunks(*m, track.Root(), 20, 5);
    EXPECT_EQ(m->GetEndOfTrack(), Sec(25));
    ExpectChunksReadable(*m, track.Root());
}

TEST(LoopRecordingRecovery, PowerFailureDropsNewestBlocksTheFilesDoNotHold) {
    TrackFixture track(4, 5, 1000);
    {
        auto m = track.NewManagerWithFiles();
        WriteChunks(*m, track.Root(), 0, 15);  // five full blocks, no loop yet
    }
    auto fileOf = [&](int blockIndex) {
        return track.Files()[blockIndex].GetAbsoluteFileName(track.Root(), false);
    };
    // Newest block: its first record torn. Second newest: a new generation was
    // begun (header rewritten) but its first record never made it, so the
    // file's records are all of an older generation. Third newest: intact.
    CorruptByte(fileOf(4), 16 + 100);
    {
        Moreld::File::DataChunkFileAppender appender(fileOf(3), false, 1000);
        ASSERT_TRUE(appender.Append(ChunkWriter::MakeChunk(Sec(100), Sec(1), 300), 16));
    }
    CorruptByte(fileOf(3), 16 + 100);

    LogCapture log("LoopRecordingFileManager");
    auto m = track.OpenManager();
    m->HandlePowerFailure(track.Root());
    EXPECT_TRUE(log.Contains("T4: Power failure detected"));
    EXPECT_TRUE(log.Contains("has 3 chunks while its file"));
    EXPECT_EQ(log.Count("is put back as empty file"), 2u);
    EXPECT_TRUE(log.Contains("matches the DB: end of track is in a valid state"));
    EXPECT_EQ(m->GetBlocks().size(), 3u);
    EXPECT_EQ(m->GetEmptyFiles().size(), 2u);
    EXPECT_EQ(m->GetEndOfTrack(), Sec(9));
    EXPECT_EQ(m->GetTrackSize(), 9 * 300u);
    EXPECT_FALSE(m->IsActive());
    ExpectChunksReadable(*m, track.Root());

    // The repair is in the database too, and the dropped files take new blocks.
    auto reopened = track.OpenManager();
    EXPECT_EQ(Summarize(*reopened).keys, Summarize(*m).keys);
    WriteChunks(*reopened, track.Root(), 9, 6);
    ExpectChunksReadable(*reopened, track.Root());
    EXPECT_EQ(reopened->GetBlocks().size(), 5u);
}

TEST(LoopRecordingRecovery, ACrashWhileRewritingARecycledFileLeavesNoStaleChunks) {
    TrackFixture track(2, 3, 1000);
    {
        auto m = track.NewManagerWithFiles();
        m->SetActiveMode(true);
        ChunkWriter writer(*m, track.Root());
        for (int i = 0; i < 9; ++i)
            writer.Write(Sec(i), Sec(1), 300);  // three full files
        // Chunk 9 recycles the oldest file and its record is written; then
        // the process dies before the file's chunks are saved.
        FileSystem::Chunk recycled = writer.Write(Sec(9), Sec(1), 300);
        EXPECT_EQ(recycled.location.file, track.Files()[0]);
        writer.Crash();
    }
    auto m = track.OpenManager();
    ASSERT_TRUE(m->IsActive());
    m->HandlePowerFailure(track.Root());
    // The recycled file is an empty file again: the index never names the
    // chunks it held before, nor the unsaved new one.
    EXPECT_EQ(m->GetBlocks().size(), 2u);
    ASSERT_EQ(m->GetEmptyFiles().size(), 1u);
    EXPECT_EQ(m->GetEmptyFiles().front(), track.Files()[0]);
    EXPECT_EQ(m->GetBeginningOfTrack(), Sec(3));
    EXPECT_EQ(m->Lookup(Sec(0)), nullptr);
    ExpectChunksReadable(*m, track.Root());
    // Recording goes on from the last saved chunk.
    WriteChunks(*m, track.Root(), 9, 4);
    ExpectChunksReadable(*m, track.Root());
}

TEST(LoopRecordingRecovery, FilesGivenBackDuringTheRunLeaveTheIndexAfterARestart) {
    TrackFixture track(6, 6, 1000);
    {
        auto m = track.NewManagerWithFiles();
        WriteChunks(*m, track.Root(), 0, 12);  // four blocks, two files still empty
        m->Protect(1, Sec(6), Sec(7));         // block 3
        // Shrink by three files: the two empty ones and block 1.
        std::vector<ChunkFile> shrunk = m->RemoveFiles(3000);
        m->RemoveFiles(shrunk);
        // Deleting the track gives back everything unprotected.
        std::vector<ChunkFile> rest = m->RemoveFiles(~0UL);
        m->RemoveFiles(rest);
        EXPECT_EQ(m->GetBlocks().size(), 1u);
    }
    auto m = track.OpenManager();
    ASSERT_EQ(m->GetBlocks().size(), 1u);
    EXPECT_EQ(m->GetBlocks().begin()->first, Sec(6));
    EXPECT_TRUE(m->GetEmptyFiles().empty());
    EXPECT_EQ(m->GetMaxTrackSize(), 1000u);
    ExpectChunksReadable(*m, track.Root());
}

TEST(LoopRecordingRecovery, PowerFailureKeepsTheListedChunksThatReadBack) {
    TrackFixture track(5, 3, 1000);
    {
        auto m = track.NewManagerWithFiles();
        WriteChunks(*m, track.Root(), 0, 6);  // two full blocks
    }
    // The newest block's last record is torn: its first two chunks stay.
    const std::string newestFile = track.Files()[1].GetAbsoluteFileName(track.Root(), false);
    CorruptByte(newestFile, 16 + 300 + 300 + 100);
    LogCapture log("LoopRecordingFileManager");
    auto m = track.OpenManager();
    m->HandlePowerFailure(track.Root());
    EXPECT_TRUE(
        log.Contains("T5: Block at 1970-01-01T00:00:03.000000000Z has 3 chunks while its "
                     "file"));
    EXPECT_TRUE(log.Contains("T5: Chunk at 1970-01-01T00:00:05.000000000Z is not present in file"));
    EXPECT_TRUE(
        log.Contains("T5: 2 of the 3 chunks of block at 1970-01-01T00:00:03.000000000Z are "
                     "kept in file"));
    EXPECT_FALSE(log.Contains("is put back as empty file"));
    ASSERT_EQ(m->GetBlocks().size(), 2u);
    EXPECT_EQ(m->GetBlocks().rbegin()->second.GetChunkNumber(), 2u);
    EXPECT_EQ(m->GetEndOfTrack(), Sec(5));
    EXPECT_EQ(m->GetTrackSize(), 5 * 300u);
    EXPECT_EQ(m->GetNumberOfChunks(Sec(0), Sec(100)), 5u);
    ExpectChunksReadable(*m, track.Root());

    // The database keeps the same chunks, and the file goes on over the torn
    // record.
    auto reopened = track.OpenManager();
    EXPECT_EQ(Summarize(*reopened).chunks, Summarize(*m).chunks);
    WriteChunks(*reopened, track.Root(), 5, 2);
    EXPECT_EQ(reopened->GetBlocks().size(), 3u);
    ExpectChunksReadable(*reopened, track.Root());
    auto again = track.OpenManager();
    EXPECT_EQ(again->GetNumberOfChunks(Sec(0), Sec(100)), 7u);
    ExpectChunksReadable(*again, track.Root());
}

TEST(LoopRecordingRecovery, AFileListedTwiceInAnOlderDatabaseCountsOnce) {
    TrackFixture track(7, 3, 1000);
    {
        auto m = track.NewManagerWithFiles();
        WriteChunks(*m, track.Root(), 0, 3);  // block on file 1; files 2 and 3 empty
    }
    {
        // Rows an earlier version could leave: file 2 listed twice as empty,
        // file 1 listed as empty besides its chunks.
        Moreld::SQLite::Database raw;
        ASSERT_TRUE(raw.Open(track.DbDir() + "/7.db"));
        raw.Execute("INSERT INTO emptyFiles SELECT * FROM emptyFiles WHERE fileNumber = 2", false);
        raw.Execute("INSERT INTO emptyFiles VALUES (1, 8, 1000, 7)", false);
    }
    LogCapture log("LoopRecordingFileManager");
    auto m = track.OpenManager();
    EXPECT_EQ(log.Count("is listed more than once in the database; it is counted once"), 2u);
    EXPECT_EQ(m->GetEmptyFiles().size(), 2u);
    EXPECT_EQ(m->GetBlocks().size(), 1u);
    EXPECT_EQ(m->GetMaxTrackSize(), 3000u);
    // The rows agree again: a second load finds nothing to say.
    log.Clear();
    auto again = track.OpenManager();
    EXPECT_FALSE(log.Contains("is listed more than once"));
    EXPECT_EQ(again->GetMaxTrackSize(), 3000u);
}
