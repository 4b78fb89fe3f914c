// What a power cut may take from a store, at every step of the operations
// that change its files: each test runs the operation in a child over the
// fault-injecting Env, kills it at each effect in turn, cuts the power, and
// checks the restarted store.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "Platform/Tools/SyncPoint.h"
#include "tests/Storage/Server/Factories/PowerCutHarness.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Storage/Server/Factories/StoreAudit.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/TestTime.h"

using loopstore::test::CutMode;
using loopstore::test::ExpectFilesConserved;
using loopstore::test::FaultInjectionEnv;
using loopstore::test::kSecond;
using loopstore::test::PowerCutHarness;
using loopstore::test::Storage;
using loopstore::test::TrackChunk;
using loopstore::test::TrackPayload;

namespace {

constexpr int kPoolFiles = 6;

const CutMode kModes[] = {CutMode::kDropAll, CutMode::kKeepDirectories, CutMode::kRandom};

// The gap between kill points spread over `effects`, at most about `most`
// of them.
uint64_t Stride(uint64_t effects, uint64_t most) {
    return effects <= most ? 1 : (effects + most - 1) / most;
}

// Effects an operation makes when it runs to its end, counted in a child.
template <typename Body>
uint64_t CountEffects(PowerCutHarness& harness, Body body) {
    const std::string counter =
        std::filesystem::temp_directory_path() / ("effects." + std::to_string(::getpid()));
    harness.Run([&](FaultInjectionEnv& env) {
        body(env);
        std::FILE* out = std::fopen(counter.c_str(), "w");
        std::fprintf(out, "%lu", static_cast<unsigned long>(env.Effects()));
        std::fclose(out);
    });
    unsigned long effects = 0;
    std::FILE* in = std::fopen(counter.c_str(), "r");
    EXPECT_EQ(std::fscanf(in, "%lu", &effects), 1);
    std::fclose(in);
    std::filesystem::remove(counter);
    return effects;
}

}  // namespace

// A cut anywhere in a first start brings the whole pool back: the link is
// done again unless it completed.
TEST(Durability, AFirstStartCutAnywhereComesBackWithTheWholePool) {
    for (CutMode mode : kModes) {
        Storage probe(kPoolFiles, false);
        PowerCutHarness counting(probe.Dir().Path());
        const uint64_t effects = CountEffects(counting, [&](FaultInjectionEnv&) { probe.Start(); });
        ASSERT_GT(effects, 3u);
        const uint64_t stride = Stride(effects, 20);
        for (uint64_t k = 1 + static_cast<uint64_t>(mode) % stride; k <= effects; k += stride) {
            Storage s(kPoolFiles, false);
            PowerCutHarness harness(s.Dir().Path());
            ASSERT_TRUE(harness.Run([&](FaultInjectionEnv& env) {
                env.KillAt(k);
                s.Start();
            }));
            harness.Cut(mode, k);
            s.Start();
            long remaining = 0;
            s.Tracks().GetRemainingSpace(remaining);
            EXPECT_EQ(remaining, kPoolFiles * static_cast<long>(Storage::kFileSize))
                << "cut at effect " << k << " of " << effects;
            ExpectFilesConserved(s);
        }
    }
}

// Creating, growing, shrinking and deleting a track, cut at every effect:
// the restarted store owns every file once, each where "pool.db" says and
// known to its track.
TEST(Durability, MovesBetweenPoolAndTracksSurviveACutAtEveryStep) {
    auto operations = [](Storage& s) {
        s.CreateTrack(1, 2);
        Protocol::TrackParameters grow, answer;
        grow.set_id(1);
        grow.set_size(2 * Storage::kFileSize);
        s.Tracks().GrowTrack(grow, answer);
        grow.set_size(-3 * static_cast<long>(Storage::kFileSize));
        s.Tracks().GrowTrack(grow, answer);
        s.Tracks().DeleteTrack(1, answer);
    };
    for (CutMode mode : kModes) {
        Storage probe(kPoolFiles);
        PowerCutHarness counting(probe.Dir().Path());
        probe.Stop();
        const uint64_t effects = CountEffects(counting, [&](FaultInjectionEnv&) {
            probe.Start();
            operations(probe);
        });
        // Each mode starts at another offset, so together they cover more.
        const uint64_t stride = Stride(effects, 25);
        for (uint64_t k = 1 + static_cast<uint64_t>(mode) % stride; k <= effects; k += stride) {
            Storage s(kPoolFiles);
            s.Stop();
            PowerCutHarness harness(s.Dir().Path());
            ASSERT_TRUE(harness.Run([&](FaultInjectionEnv& env) {
                env.KillAt(k);
                s.Start();
                operations(s);
            }));
            harness.Cut(mode, k);
            s.Start();
            SCOPED_TRACE("cut at effect " + std::to_string(k) + " of " + std::to_string(effects));
            ExpectFilesConserved(s);
            // The store goes on: the track can be deleted and made again.
            Protocol::TrackParameters answer;
            if (!s.Factory().GetManagers().GetTrackIds().empty())
                s.Tracks().DeleteTrack(1, answer);
            EXPECT_EQ(s.CreateTrack(2, kPoolFiles), 2);
            ExpectFilesConserved(s);
        }
    }
}

// A chunk whose file was finished and listed is saved: a cut right after
// the listing keeps it.
TEST(Durability, ListedChunksSurviveACut) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    Storage s(kPoolFiles);
    ASSERT_EQ(s.CreateTrack(1, 3), 1);
    s.Stop();
    PowerCutHarness harness(s.Dir().Path());
    constexpr size_t kChunkSize = 5000;
    ASSERT_TRUE(harness.Run([&](FaultInjectionEnv& env) {
        s.Start();
        Moreld::Tools::SyncPoint::Instance().SetCallback(
            "LoopRecordingFileTrackWriter::SaveCurrentFile:Saved", [&env] { env.KillAt(1); });
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(1));
        for (int64_t i = 0; i < 1000; ++i)
            writer->Append(TrackChunk(1, (100 + i) * kSecond, kSecond, kChunkSize));
    }));
    harness.Cut(CutMode::kDropAll);
    s.Start();
    ExpectFilesConserved(s);

    // The first file's chunks were listed before the kill: all of them read
    // back, byte for byte.
    std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(1));
    int found = 0;
    for (int64_t i = 0; i < 1000; ++i) {
        Protocol::TimePoint at;
        at.set_nanoseconds((100 + i) * kSecond);
        Protocol::Chunk chunk;
        bool got = false;
        reader->GetChunk(at, Protocol::KeyList(), chunk, got);
        if (!got || chunk.timepoint().nanoseconds() != at.nanoseconds())
            break;
        ASSERT_EQ(chunk.data(), TrackPayload(1, at.nanoseconds(), kChunkSize));
        ++found;
    }
    EXPECT_GE(found, static_cast<int>(Storage::kFileSize / (kChunkSize + 100)) - 1);
}

TEST(Durability, ASecondOpenerOfTheStoreFailsAtOnce) {
    Storage s(kPoolFiles);
    try {
        LoopRecordingFileFactory second({s.TracksDir(), s.DbDir(), s.PoolDir()});
        FAIL() << "a second factory opened the store";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "Store " + s.DbDir() + " is already open by process " +
                                             std::to_string(::getpid()));
    }
    // The refused opener changed nothing.
    s.Restart();
    ExpectFilesConserved(s);
}

// Chunks recorded after a clear are saved when their writer closes, like
// any others: a restart finds them.
TEST(Durability, ChunksRecordedAfterAClearAreSavedByTheirWriter) {
    Storage s(kPoolFiles);
    ASSERT_EQ(s.CreateTrack(1, 3), 1);
    auto record = [&](int64_t from, int count) {
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(1));
        for (int i = 0; i < count; ++i)
            writer->Append(TrackChunk(1, from + i * kSecond / 25, kSecond / 25, 3000));
    };
    record(1000 * kSecond, 19);
    Protocol::TrackParameters grow, answer;
    grow.set_id(1);
    grow.set_size(Storage::kFileSize);
    s.Tracks().GrowTrack(grow, answer);
    s.Tracks().ClearTrack(1);
    record(1002 * kSecond, 6);
    s.Restart();
    std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(1));
    for (int i = 0; i < 6; ++i) {
        Protocol::TimePoint at;
        at.set_nanoseconds(1002 * kSecond + i * kSecond / 25);
        Protocol::Chunk chunk;
        bool got = false;
        reader->GetChunk(at, Protocol::KeyList(), chunk, got);
        ASSERT_TRUE(got && chunk.timepoint().nanoseconds() == at.nanoseconds()) << "chunk " << i;
        EXPECT_EQ(chunk.data(), TrackPayload(1, at.nanoseconds(), 3000));
    }
}
