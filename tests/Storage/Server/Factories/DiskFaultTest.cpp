// A disk that fills up or fails under a running store: each test fails one
// kind of call from a chosen point on, checks that the client is told, then
// frees the disk, restarts the store and checks that nothing saved is lost,
// no wrong byte is served and the store records again.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/Storage/Server/Factories/PowerCutHarness.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Storage/Server/Factories/StoreAudit.h"
#include "tests/Support/TestTime.h"

using loopstore::test::ExpectFilesConserved;
using loopstore::test::FaultInjectionEnv;
using loopstore::test::kSecond;
using loopstore::test::ScopedEnv;
using loopstore::test::Storage;
using loopstore::test::TrackChunk;
using loopstore::test::TrackPayload;

namespace {

constexpr size_t kChunkSize = 5000;
constexpr int kPoolFiles = 6;
constexpr int kTrackFiles = 5;
// Fewer chunks than the track's files hold, so nothing saved is recycled.
constexpr int kSavedChunks = 30;
constexpr int kLaterChunks = 20;

struct Fault {
    FaultInjectionEnv::Op op;
    int error;
    bool sticky;
    const char* name;
};

const Fault kFaults[] = {
    {FaultInjectionEnv::Op::kWrite, ENOSPC, true, "full disk"},
    {FaultInjectionEnv::Op::kWrite, EIO, false, "one failed write"},
    {FaultInjectionEnv::Op::kSync, EIO, false, "one failed sync"},
    {FaultInjectionEnv::Op::kSync, EIO, true, "failing syncs"},
};

int64_t At(int i) {
    return (100 + i) * kSecond;
}

// Appends chunks `from` to `to` (excluded); the text of the first refusal,
// empty when every chunk was stored.
std::string Record(Storage& s, int from, int to) {
    std::string refusal;
    std::unique_ptr<MoreldStorageApi::ITrackWriter> writer;
    try {
        writer.reset(s.Writers().Create(1));
    } catch (const std::runtime_error& e) {
        return e.what();  // a writer marks its track active in the database
    }
    for (int i = from; i < to; ++i) {
        try {
            writer->Append(TrackChunk(1, At(i), kSecond, kChunkSize));
        } catch (const std::runtime_error& e) {
            if (refusal.empty())
                refusal = e.what();
        }
    }
    try {
        long stored = 0;
        writer->WaitUntilStored(stored);
    } catch (const std::runtime_error& e) {
        if (refusal.empty())
            refusal = e.what();
    }
    return refusal;
}

// Reads chunks `from` to `to`: every one that is found has its own bytes;
// returns how many were found.
int ReadBack(Storage& s, int from, int to) {
    std::unique_ptr<MoreldStorageApi::ITrackReader> reader(s.Readers().Create(1));
    int found = 0;
    for (int i = from; i < to; ++i) {
        Protocol::TimePoint at;
        at.set_nanoseconds(At(i));
        Protocol::Chunk chunk;
        bool got = false;
        reader->GetChunk(at, Protocol::KeyList(), chunk, got);
        if (!got || chunk.timepoint().nanoseconds() != At(i))
            continue;
        EXPECT_EQ(chunk.data(), TrackPayload(1, At(i), kChunkSize)) << "chunk " << i;
        ++found;
    }
    return found;
}

}  // namespace

TEST(DiskFaults, WritesAndSyncsThatFailLoseNothingSavedAndTellTheClient) {
    for (const Fault& fault : kFaults) {
        for (uint64_t nth : {1, 2, 3, 5, 7, 9, 12, 15, 20, 25}) {
            SCOPED_TRACE(std::string(fault.name) + " from call " + std::to_string(nth));
            Storage s(kPoolFiles);
            ASSERT_EQ(s.CreateTrack(1, kTrackFiles), 1);
            ASSERT_EQ(Record(s, 0, kSavedChunks), "");
            s.Stop();
            {
                FaultInjectionEnv env(s.Dir() / "journal", s.Dir() / "trash");
                ScopedEnv installed(&env);
                s.Start();
                env.FailAt(fault.op, nth, fault.error, fault.sticky);
                const std::string refusal = Record(s, kSavedChunks, kSavedChunks + kLaterChunks);
                // The client hears of a failure in the system's words (one
                // that first strikes at the writer's close reaches the log).
                if (!refusal.empty()) {
                    EXPECT_TRUE(refusal.find(std::strerror(fault.error)) != std::string::npos ||
                                refusal.find("disk is full") != std::string::npos ||
                                refusal.find("disk I/O error") != std::string::npos)
                        << refusal;
                }
                env.ClearFaults();
                s.Stop();
            }
            s.Start();
            int saved = 0;
            EXPECT_NO_THROW(saved = ReadBack(s, 0, kSavedChunks));
            EXPECT_EQ(saved, kSavedChunks);
            EXPECT_NO_THROW(ReadBack(s, kSavedChunks, kSavedChunks + kLaterChunks));
            ExpectFilesConserved(s);
            // The store records again once the disk is back.
            const int again = kSavedChunks + kLaterChunks + 5;
            EXPECT_EQ(Record(s, again, again + 5), "");
            s.Restart();
            EXPECT_EQ(ReadBack(s, again, again + 5), 5);
        }
    }
}

// Track administration on a full disk: each call fails with the system's
// reason or succeeds, and a restart finds every file once.
TEST(DiskFaults, TrackAdministrationOnAFullDiskKeepsEveryFile) {
    for (uint64_t nth = 1; nth <= 40; nth += 3) {
        SCOPED_TRACE("full from write " + std::to_string(nth));
        Storage s(kPoolFiles);
        s.Stop();
        {
            FaultInjectionEnv env(s.Dir() / "journal", s.Dir() / "trash");
            ScopedEnv installed(&env);
            s.Start();
            env.FailAt(FaultInjectionEnv::Op::kWrite, nth, ENOSPC, true);
            const std::function<void()> steps[] = {
                [&] { s.CreateTrack(1, kTrackFiles); },
                [&] {
                    Protocol::TrackParameters grow, answer;
                    grow.set_id(1);
                    grow.set_size(-2 * static_cast<long>(Storage::kFileSize));
                    s.Tracks().GrowTrack(grow, answer);
                },
                [&] {
                    Protocol::TrackParameters answer;
                    s.Tracks().DeleteTrack(1, answer);
                },
            };
            for (const auto& step : steps) {
                try {
                    step();
                } catch (const std::runtime_error& e) {
                    EXPECT_FALSE(std::string(e.what()).empty());
                }
            }
            env.ClearFaults();
            s.Stop();
        }
        s.Start();
        ExpectFilesConserved(s);
        Protocol::TrackParameters answer;
        if (!s.Factory().GetManagers().GetTrackIds().empty())
            s.Tracks().DeleteTrack(1, answer);
        EXPECT_EQ(s.CreateTrack(1, kTrackFiles), 1);
        EXPECT_EQ(Record(s, 0, 5), "");
        ExpectFilesConserved(s);
    }
}
