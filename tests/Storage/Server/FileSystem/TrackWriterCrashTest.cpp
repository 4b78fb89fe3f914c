#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "Platform/Tools/SyncPoint.h"
#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"

using loopstore::test::MakeChunkMessage;
using loopstore::test::PayloadFor;
using loopstore::test::TrackIo;
using Moreld::Tools::SyncPoint;

namespace {

constexpr int64_t kSecond = 1'000'000'000;

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
    // right after the first records were written into a recycled file.
    RunRound(io, seed + 10, {"LoopRecordingFileManager::ForgetRecycledFile:Committed", 3});
    RunRound(io, seed + 11, {"LoopRecordingFileManager::ForgetRecycledFile:Committed", 7});
    RunRound(io, seed + 12, {"LoopRecordingFileTrackWriter::WriteChunk:Written", 130});
    RunRound(io, seed + 13, {"LoopRecordingFileTrackWriter::SaveCurrentFile:Saved", 5});

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
