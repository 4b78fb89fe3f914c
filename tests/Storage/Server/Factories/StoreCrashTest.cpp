// A store recorded and administered at random, killed or power-cut at a
// random effect, restarted, and checked against what its client was told
// (CrashModel), cycle after cycle on the same store.
//
// LOOPSTORE_SEED replays a run; LOOPSTORE_CRASH_CYCLES sets its length
// (scripts/crash-soak runs it long).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include "Platform/Logging/LoggingManager.h"
#include "tests/Storage/Server/Factories/CrashModel.h"
#include "tests/Storage/Server/Factories/PowerCutHarness.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Storage/Server/Factories/StoreAudit.h"
#include "tests/Support/TestTime.h"

using loopstore::test::kSecond;

namespace loopstore::test {

namespace {

constexpr int kPoolFiles = 24;
constexpr long kTracks = 3;
constexpr int64_t kChunkDuration = kSecond / 25;
// The store's clock for retention: later than any chunk the workload writes,
// and still, so a max age keeps one cutoff for the whole run.
constexpr int64_t kNow = int64_t{10'000'000} * kSecond;

uint64_t EnvNumber(const char* name, uint64_t fallback) {
    const char* text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : fallback;
}

Protocol::TimePoint Tp(int64_t ns) {
    Protocol::TimePoint tp;
    tp.set_nanoseconds(ns);
    return tp;
}

// The client of one cycle: random calls on the store, each logged as
// CrashModel expects. Runs in the child until it is killed.
class Workload {
  public:
    Workload(Storage& s, std::string log, uint64_t seed)
        : s_(s), log_(std::move(log)), random_(seed) {}

    void Run(int steps) {
        for (int i = 0; i < steps; ++i) {
            const long track = Pick(1, kTracks);
            if (!Exists(track)) {
                Create(track);
                continue;
            }
            switch (Pick(0, 19)) {
                case 0:
                    Delete(track);
                    break;
                case 1:
                    Grow(track);
                    break;
                case 2:
                    Shrink(track);
                    break;
                case 3:
                    Clear(track);
                    break;
                case 4:
                case 5:
                    Protect(track);
                    break;
                case 6:
                case 7:
                    SetProperty(track);
                    break;
                case 8:
                case 9:
                    Read(track);
                    break;
                case 10:
                    Expire(track);
                    break;
                default:
                    Record(track);
                    break;
            }
        }
    }

  private:
    long Pick(long low, long high) {
        return std::uniform_int_distribution<long>(low, high)(random_);
    }
    void Log(const std::string& line) { CrashModel::Log(log_, line); }
    bool Exists(long track) { return Manager(track) != nullptr; }
    LoopRecordingFileManager* Manager(long track) {
        for (long id : s_.Factory().GetManagers().GetTrackIds())
            if (id == track)
                return s_.Factory().GetManagers().GetManager(track);
        return nullptr;
    }

    void Create(long track) {
        Protocol::TrackParameters in, out;
        in.set_id(track);
        in.set_size(Pick(3, 6) * Storage::kFileSize);
        long remaining = 0;
        s_.Tracks().GetRemainingSpace(remaining);
        if (remaining < in.size())
            return;
        if (s_.Tracks().CreateTrack(in, out) == 1 && out.id() == track)
            Log("T " + std::to_string(track));
    }

    void Delete(long track) {
        UnprotectAll(track);
        Log("X " + std::to_string(track));
        Log("D " + std::to_string(track));
        Protocol::TrackParameters out;
        s_.Tracks().DeleteTrack(track, out);
    }

    void Grow(long track) {
        long remaining = 0;
        s_.Tracks().GetRemainingSpace(remaining);
        if (remaining < static_cast<long>(Storage::kFileSize))
            return;
        Protocol::TrackParameters in, out;
        in.set_id(track);
        in.set_size(Storage::kFileSize);
        s_.Tracks().GrowTrack(in, out);
    }

    void Shrink(long track) {
        if (Manager(track)->GetMaxTrackSize() < 4 * Storage::kFileSize)
            return;
        Log("X " + std::to_string(track));
        Protocol::TrackParameters in, out;
        in.set_id(track);
        in.set_size(-static_cast<long>(Storage::kFileSize));
        s_.Tracks().GrowTrack(in, out);
    }

    void Clear(long track) {
        UnprotectAll(track);
        Log("X " + std::to_string(track));
        s_.Tracks().ClearTrack(track);
    }

    void UnprotectAll(long track) {
        Protocol::ProtectionInfos infos;
        s_.Tracks().ListProtections(infos);
        for (const auto& info : infos.infos()) {
            if (info.track_id() != track)
                continue;
            Log("U " + std::to_string(info.protection_id()));
            s_.Tracks().Unprotect(info.protection_id());
        }
    }

    void Protect(long track) {
        UnprotectAll(track);  // one protection a track keeps recording room predictable
        const int64_t end = Manager(track)->GetEndOfTrack().ToNanoseconds();
        if (end <= 0)
            return;
        const int64_t from = end - Pick(1, 3) * kSecond;
        // Half of them end in the future: they hold what is recorded next.
        const int64_t length = Pick(0, 1) == 0 ? kSecond : end - from + Pick(1, 3) * kSecond;
        long id = 0;
        try {
            s_.Tracks().Protect(track, Tp(from), Tp(length), id);
        } catch (const std::runtime_error&) {
            return;  // nothing recorded there any more
        }
        Log("P " + std::to_string(id) + " " + std::to_string(track) + " " + std::to_string(from) +
            " " + std::to_string(from + length));
    }

    // Sets a max age that the store's fixed clock turns into a cutoff a
    // little before the end of the track: what lies wholly before it goes.
    void Expire(long track) {
        const int64_t end = Manager(track)->GetEndOfTrack().ToNanoseconds();
        if (end <= 0)
            return;
        const int64_t cutoff = end - Pick(0, 3) * kSecond;
        Log("E " + std::to_string(track) + " " + std::to_string(cutoff));
        s_.Retention().SetTrackMaxAge(track, Tp(kNow - cutoff));
    }

    void SetProperty(long track) {
        const std::string key = std::string(1, static_cast<char>('a' + Pick(0, 2)));
        const std::string value = "v" + std::to_string(Pick(0, 1000000));
        Protocol::PropertyList list;
        auto* property = list.add_properties();
        property->set_key(key);
        property->set_value(value);
        Log("Z " + std::to_string(track) + " " + key);
        s_.Tracks().SetTrackProperties(track, list);
        Log("Y " + std::to_string(track) + " " + key + " " + value);
    }

    // Records while the track stays under half full, so that nothing the
    // model requires is recycled; a full track is cleared first.
    void Record(long track) {
        LoopRecordingFileManager& manager = *Manager(track);
        constexpr unsigned long kMostPerChunk = 8000 + 100;  // payload and record
        const unsigned long budget = manager.GetMaxTrackSize() / 2;
        const unsigned long used = manager.GetTrackSize();
        const long room = used >= budget ? 0 : static_cast<long>((budget - used) / kMostPerChunk);
        if (room == 0) {
            Clear(track);
            return;
        }
        int64_t tp =
            std::max<int64_t>(manager.GetEndOfTrack().ToNanoseconds(), 1000 * kSecond) + kSecond;
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s_.Writers().Create(track));
        const long chunks = std::min(room, Pick(1, 20));
        for (long i = 0; i < chunks; ++i, tp += kChunkDuration) {
            const size_t size = static_cast<size_t>(Pick(200, 8000));
            writer->Append(TrackChunk(track, tp, kChunkDuration, size));
            Log("A " + std::to_string(track) + " " + std::to_string(tp) + " " +
                std::to_string(size));
        }
        writer.reset();
        Log("K " + std::to_string(track));
    }

    void Read(long track) {
        std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s_.Readers().Create(track));
        Protocol::TimePoint cursor = Tp(0), next;
        for (int i = 0; i < 20; ++i) {
            bool found = false;
            reader->NextTimePoint(cursor, next, found);
            if (!found)
                return;
            Protocol::Chunk chunk;
            bool got = false;
            reader->GetChunk(next, Protocol::KeyList(), chunk, got);
            if (got && chunk.data() != TrackPayload(track, next.nanoseconds(), chunk.data().size()))
                Log("R " + std::to_string(track) + " " + std::to_string(next.nanoseconds()));
            cursor = next;
        }
    }

    Storage& s_;
    std::string log_;
    std::mt19937_64 random_;
};

// Every chunk of the track reads back with its own bytes; returns the time
// points read.
std::set<int64_t> ScanTrack(Storage& s, long track) {
    std::set<int64_t> seen;
    std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(track));
    Protocol::TimePoint cursor = Tp(0), next;
    for (;;) {
        bool found = false;
        reader->NextTimePoint(cursor, next, found);
        if (!found)
            break;
        Protocol::Chunk chunk;
        bool got = false;
        reader->GetChunk(next, Protocol::KeyList(), chunk, got);
        EXPECT_TRUE(got) << "T" << track << " lists " << next.nanoseconds()
                         << " but cannot read it";
        if (got) {
            EXPECT_EQ(chunk.data(), TrackPayload(track, next.nanoseconds(), chunk.data().size()))
                << "T" << track << ": wrong bytes at " << next.nanoseconds();
        }
        EXPECT_GT(next.nanoseconds(), cursor.nanoseconds());
        seen.insert(next.nanoseconds());
        cursor = next;
    }
    return seen;
}

// Every saved chunk in the range of a protection lies in a block that the
// protection holds, the chunks recorded after it was made included.
void ExpectProtectionsHold(Storage& s, const CrashModel& model) {
    for (const auto& [id, protection] : model.protections) {
        const auto saved = model.saved.find(protection.track);
        if (saved == model.saved.end())
            continue;
        const auto blocks = s.Factory().GetManagers().GetManager(protection.track)->GetBlocks();
        for (auto chunk = saved->second.lower_bound(protection.from);
             chunk != saved->second.end() && chunk->first < protection.to; ++chunk) {
            auto block = blocks.upper_bound(Moreld::Time::TimePoint::FromNanoseconds(chunk->first));
            ASSERT_NE(block, blocks.begin()) << "T" << protection.track << ": " << chunk->first;
            --block;
            EXPECT_TRUE(block->second.GetProtections().count(static_cast<unsigned long>(id)))
                << "T" << protection.track << ": chunk at " << chunk->first
                << " not held by protection " << id;
        }
    }
}

void ExpectModelHolds(Storage& s, const CrashModel& model) {
    ExpectFilesConserved(s);
    EXPECT_TRUE(model.wrongReads.empty()) << "the client read wrong bytes";
    const std::vector<long> ids = s.Factory().GetManagers().GetTrackIds();
    for (long track : model.tracks)
        EXPECT_NE(std::find(ids.begin(), ids.end(), track), ids.end()) << "T" << track << " lost";
    for (long track : ids) {
        const std::set<int64_t> seen = ScanTrack(s, track);
        const auto saved = model.saved.find(track);
        if (saved == model.saved.end())
            continue;
        for (const auto& [tp, size] : saved->second)
            EXPECT_TRUE(seen.count(tp)) << "T" << track << ": saved chunk at " << tp << " lost";
    }
    Protocol::ProtectionInfos infos;
    s.Tracks().ListProtections(infos);
    std::set<long> listed;
    for (const auto& info : infos.infos())
        listed.insert(info.protection_id());
    for (const auto& [id, protection] : model.protections)
        EXPECT_TRUE(listed.count(id)) << "protection " << id << " lost";
    ExpectProtectionsHold(s, model);
    for (const auto& [key, value] : model.properties) {
        Protocol::PropertyList list;
        s.Tracks().GetTrackProperties(key.first, list);
        std::string found;
        for (const auto& p : list.properties())
            if (p.key() == key.second)
                found = p.value();
        EXPECT_EQ(found, value) << "T" << key.first << " property " << key.second;
    }
}

}  // namespace

TEST(StoreCrash, NothingAcknowledgedIsLostAcrossKillsAndPowerCuts) {
    const uint64_t seed = EnvNumber("LOOPSTORE_SEED", std::random_device()());
    const uint64_t cycles = EnvNumber("LOOPSTORE_CRASH_CYCLES", 150);
    // LOOPSTORE_LOG_LEVEL=10 shows what the store did in every cycle.
    if (const uint64_t level = EnvNumber("LOOPSTORE_LOG_LEVEL", 0))
        tav::mr::logging::LoggingManager::ConfigureConsole(static_cast<int>(level));
    std::printf("StoreCrash seed %lu (LOOPSTORE_SEED=%lu replays), %lu cycles\n",
                static_cast<unsigned long>(seed), static_cast<unsigned long>(seed),
                static_cast<unsigned long>(cycles));
    std::fflush(stdout);  // or every forked child would print it again
    std::mt19937_64 random(seed);
    Storage s(kPoolFiles);
    s.Stop();
    s.SetUpkeep([] { return Moreld::Time::TimePoint::FromNanoseconds(kNow); },
                std::chrono::minutes(1));
    PowerCutHarness harness(s.Dir().Path());
    const std::string log = s.Dir() / "model.log";
    CrashModel model;
    uint64_t kills = 0, cuts[3] = {0, 0, 0};
    for (uint64_t cycle = 0; cycle < cycles && !::testing::Test::HasFailure(); ++cycle) {
        const uint64_t killAt = std::uniform_int_distribution<uint64_t>(1, 1500)(random);
        const uint64_t workloadSeed = random();
        const bool killed = harness.Run([&](FaultInjectionEnv& env) {
            env.KillAt(killAt);
            s.Start();
            Workload(s, log, workloadSeed).Run(60);
            s.Stop();
        });
        kills += killed;
        const int mode = static_cast<int>(random() % 4);  // 3: the kill alone
        if (mode < 3) {
            harness.Cut(static_cast<CutMode>(mode), random());
            ++cuts[mode];
        } else {
            harness.Forget();
        }
        SCOPED_TRACE("cycle " + std::to_string(cycle) + " (seed " + std::to_string(seed) + ")");
        model.ReadLog(log);
        model.EndRun();
        s.Start();
        ExpectModelHolds(s, model);
        s.Stop();
    }
    std::printf(
        "StoreCrash: %lu cycles, %lu killed; cuts: %lu drop-all, %lu keep-directories, "
        "%lu random\n",
        static_cast<unsigned long>(cycles), static_cast<unsigned long>(kills),
        static_cast<unsigned long>(cuts[0]), static_cast<unsigned long>(cuts[1]),
        static_cast<unsigned long>(cuts[2]));
}

}  // namespace loopstore::test
