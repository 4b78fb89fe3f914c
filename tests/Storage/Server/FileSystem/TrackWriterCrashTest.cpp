#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "Platform/Logging/LogCapture.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/SQLite/TrackDB.h"
#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"
#include "tests/Support/SyncPoints.h"

using loopstore::test::At;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
using loopstore::test::PayloadFor;
using loopstore::test::TrackIo;
using Moreld::Tools::SyncPoint;
using tav::mr::logging::LogCapture;

namespace {

// Where the writing child dies.
struct CrashPlan {
    const char* point = nullptr;  // a sync point, or null to be killed from outside
    int occurrence = 0;           // die at this occurrence of the point
};

// The child: loads the track (repairing it if needed) and records chunks
// from the end of the track until it is killed.
[[noreturn]] void RecordUntilKilled(TrackIo& io, unsigned seed, CrashPlan plan) {
    io.Restart();
    if (plan.point != nullptr) {
        auto count = std::make_shared<int>(0);
        SyncPoint::Instance().SetCallback(plan.point, [count, plan] {
            if (++*count == plan.occurrence)
                raise(SIGKILL);
        });
    }
    std::mt19937 random(seed);
    int64_t t = io.Manager().GetEndOfTrack().ToNanoseconds() + kSecond;
    LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
    writer.SetTrackDirectory(io.Root());
    for (int i = 0; i < 20000; ++i) {
        const size_t size = std::uniform_int_distribution<size_t>(500, 6000)(random);
        Protocol::Chunk chunk = MakeChunkMessage(t, kSecond / 25, size);
        writer.Append(chunk);
        t += kSecond / 25;
    }
    _exit(3);  // never reached in practice: the parent kills us first
}

// Every chunk the index names reads back intact, in time order, from the
// beginning of the track on.
void ExpectTrackIntact(TrackIo& io) {
    LoopRecordingFileManager& manager = io.Manager();
    ASSERT_TRUE(manager.CheckInvariant());
    ChunkCacheTrackReader reader(io.TrackId(), manager, io.Cache());
    reader.SetTrackDirectory(io.Root());
    Protocol::TimePoint cursor, next;
    cursor.set_nanoseconds(manager.GetBeginningOfTrack().ToNanoseconds() - 1);
    size_t chunks = 0;
    bool found = true;
    for (;;) {
        reader.NextTimePoint(cursor, next, found);
        if (!found)
            break;
        Protocol::Chunk out;
        bool got = false;
        ASSERT_NO_THROW(reader.GetChunk(next, Protocol::KeyList(), out, got)) << next.nanoseconds();
        ASSERT_TRUE(got);
        ASSERT_EQ(out.timepoint().nanoseconds(), next.nanoseconds());
        ASSERT_TRUE(out.data() == PayloadFor(next.nanoseconds(), out.data().size()));
        ASSERT_GT(next.nanoseconds(), cursor.nanoseconds());
        cursor = next;
        ++chunks;
    }
    std::printf("  track intact: %zu chunks, %s to %s\n", chunks,
                manager.GetBeginningOfTrack().ToString().c_str(),
                manager.GetEndOfTrack().ToString().c_str());
    EXPECT_EQ(chunks,
              manager.GetNumberOfChunks(manager.GetBeginningOfTrack(), manager.GetEndOfTrack()));
}

void RunRound(TrackIo& io, unsigned seed, CrashPlan plan) {
    io.Close();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        RecordUntilKilled(io, seed, plan);
    if (plan.point == nullptr) {
        std::mt19937 random(seed);
        std::this_thread::sleep_for(
            std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 300)(random)));
        kill(child, SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child exited with " << status;
    io.Restart();  // loads the track; the database says active, so it is repaired
    ExpectTrackIntact(io);
}

// Dies at the `occurrence`th time the process reaches `point`.
void KillAt(const char* point, int occurrence) {
    auto count = std::make_shared<int>(0);
    SyncPoint::Instance().SetCallback(point, [count, occurrence] {
        if (++*count == occurrence)
            raise(SIGKILL);
    });
}

// Appends `count` chunks of `size` payload bytes, one second each, from `t`
// on, through one writer that is then destroyed (a clean close, unless the
// process dies first). Returns the end of the last chunk.
int64_t WriteWithOneWriter(TrackIo& io, int64_t t, int count, size_t size) {
    LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
    writer.SetTrackDirectory(io.Root());
    for (int i = 0; i < count; ++i, t += kSecond) {
        Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, size);
        writer.Append(chunk);
    }
    return t;
}

// Runs `child` in a child process that must die of SIGKILL, then reloads
// the track as the next start does.
template <typename Child>
void CrashInChild(TrackIo& io, Child child) {
    io.Close();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        io.Restart();
        child();
        _exit(3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "child exited with " << status;
    io.Restart();
}

size_t ChunkCount(LoopRecordingFileManager& manager) {
    size_t chunks = 0;
    for (const auto& [key, block] : manager.GetBlocks())
        chunks += block.GetChunkNumber();
    return chunks;
}

}  // namespace

TEST(TrackWriterCrash, EveryIndexedChunkSurvivesAKillAtAnyMoment) {
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    TrackIo io(21, 4, 64 * 1024);
    // Killed from outside at random moments.
    for (unsigned round = 0; round < 4; ++round)
        RunRound(io, seed + round, CrashPlan{});
    // Killed right after a recycled file was forgotten by the database, and
    // right after the first records were written into a recycled file (only
    // where sync points are compiled in).
    if (SyncPoint::kCompiledIn) {
        RunRound(io, seed + 10, {"LoopRecordingFileManager::ForgetRecycledFile:Committed", 3});
        RunRound(io, seed + 11, {"LoopRecordingFileManager::ForgetRecycledFile:Committed", 7});
        RunRound(io, seed + 12, {"LoopRecordingFileTrackWriter::WriteChunk:Written", 130});
        RunRound(io, seed + 13, {"LoopRecordingFileTrackWriter::SaveCurrentFile:Saved", 5});
    }

    // The track keeps recording after all this.
    int64_t t = io.Manager().GetEndOfTrack().ToNanoseconds() + kSecond;
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 100; ++i, t += kSecond) {
            Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, 1000);
            writer.Append(chunk);
        }
    }
    io.Restart();
    ExpectTrackIntact(io);
    EXPECT_EQ(io.Manager().GetEndOfTrack().ToNanoseconds(), t);
}

TEST(TrackWriterCrash, AContinuedFileKeepsItsSavedChunksAfterAKill) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    TrackIo io(22, 3, 64 * 1024);
    LogCapture log("LoopRecordingFileManager");
    CrashInChild(io, [&] {
        // The first writer closes cleanly inside its file: 25 chunks listed.
        const int64_t end = WriteWithOneWriter(io, kSecond, 25, 1000);
        // The next one continues that file and dies after 5 more records.
        KillAt("LoopRecordingFileTrackWriter::WriteChunk:Written", 5);
        WriteWithOneWriter(io, end, 20, 1000);
    });
    EXPECT_TRUE(log.Contains("T22: Power failure detected"));
    EXPECT_TRUE(log.Contains("has 25 chunks while its file"));
    EXPECT_TRUE(log.Contains("25 of the 25 chunks of block at"));
    EXPECT_FALSE(log.Contains("is put back as empty file"));
    EXPECT_EQ(ChunkCount(io.Manager()), 25u);
    EXPECT_EQ(io.Manager().GetEndOfTrack().ToNanoseconds(), 26 * kSecond);
    ExpectTrackIntact(io);

    // The file goes on after its saved chunks, over the records the index
    // dropped, and everything holds across a clean restart.
    WriteWithOneWriter(io, 26 * kSecond, 10, 1000);
    io.Restart();
    EXPECT_EQ(ChunkCount(io.Manager()), 35u);
    EXPECT_EQ(io.Manager().GetBlocks().size(), 1u);
    ExpectTrackIntact(io);
}

TEST(TrackWriterCrash, AOneFileTrackKilledAfterRecyclingListsItsFileOnce) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    TrackIo io(23, 1, 16 * 1024);
    CrashInChild(io, [&] {
        // Five chunks fill the file; the sixth recycles it. Die once the
        // database has forgotten the old block, before anything is saved.
        KillAt("LoopRecordingFileManager::ForgetRecycledFile:Committed", 1);
        WriteWithOneWriter(io, kSecond, 20, 3000);
    });
    EXPECT_EQ(io.Manager().GetMaxTrackSize(), 16u * 1024);
    ASSERT_EQ(io.Manager().GetEmptyFiles().size(), 1u);
    EXPECT_TRUE(io.Manager().GetBlocks().empty());
    io.Close();
    TrackDB db;
    ASSERT_TRUE(db.Open(io.DbDir(), io.TrackId()));
    EXPECT_EQ(db.GetAllEmptyFiles().size(), 1u);
    EXPECT_TRUE(db.GetAllChunks().empty());

    // The track records into its one file again, and a clean stop saves it.
    io.Restart();
    WriteWithOneWriter(io, 30 * kSecond, 3, 3000);
    io.Restart();
    EXPECT_EQ(io.Manager().GetMaxTrackSize(), 16u * 1024);
    EXPECT_TRUE(io.Manager().GetEmptyFiles().empty());
    EXPECT_EQ(ChunkCount(io.Manager()), 3u);
    ExpectTrackIntact(io);
}
