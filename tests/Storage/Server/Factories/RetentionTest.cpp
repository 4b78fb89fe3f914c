// Retention by age through the storage API, across restarts, with the
// storage's clock and background interval in the test's hands.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "Platform/Tools/SyncPoint.h"
#include "tests/Storage/Server/Factories/PowerCutHarness.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Storage/Server/Factories/StoreAudit.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/TestTime.h"

namespace loopstore::test {
namespace {

using loopstore::test::kSecond;
using Moreld::Time::TimePoint;

Protocol::TimePoint Ns(int64_t ns) {
    Protocol::TimePoint tp;
    tp.set_nanoseconds(ns);
    return tp;
}

// One chunk a second from `first` (s); three chunks fill a file, so blocks
// start at first, first + 3, ...
void RecordSeconds(Storage& s, long track, int first, int count) {
    std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(track));
    for (int i = first; i < first + count; ++i)
        writer->Append(TrackChunk(track, i * kSecond, kSecond, 20000));
}

Protocol::TrackInfo Info(Storage& s, long track) {
    Protocol::Ids ids;
    ids.add_ids(track);
    Protocol::TrackInfos infos;
    s.Tracks().GetTrackInfos(ids, infos);
    return infos.infos_size() == 1 ? infos.infos(0) : Protocol::TrackInfo();
}

// Counts the background thread's runs, so a test can wait for one that
// started after it changed the clock.
class RunCounter {
  public:
    RunCounter() {
        Moreld::Tools::SyncPoint::Instance().SetCallback("PeriodicThread::Loop:Ran", [this] {
            std::lock_guard<std::mutex> lock(mutex_);
            ++runs_;
            ran_.notify_all();
        });
    }
    ~RunCounter() { Moreld::Tools::SyncPoint::Instance().ClearAll(); }
    // Waits until `more` runs ended after this call; the first may have
    // started before it.
    void WaitFor(int more) {
        std::unique_lock<std::mutex> lock(mutex_);
        const int target = runs_ + more;
        ran_.wait(lock, [&] { return runs_ >= target; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable ran_;
    int runs_ = 0;
};

TEST(Retention, MaxAgeOutlivesRestartsAndPurgesAtOnceAtStartUpAndPeriodically) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    std::atomic<int64_t> now{int64_t{9} * kSecond};
    Storage s(8, false);
    // The background thread stays out of the way until the last part.
    s.SetUpkeep([&] { return TimePoint::FromNanoseconds(now.load()); }, std::chrono::hours(1));
    s.Start();
    ASSERT_EQ(s.CreateTrack(1, 4), 1);
    RecordSeconds(s, 1, 0, 9);  // blocks 0, 3, 6
    const uint64_t blockBytes = Info(s, 1).current_size() / 3;
    long protection = 0;
    s.Tracks().Protect(1, Ns(6 * kSecond), Ns(kSecond), protection);

    // At once: 9 s - 5 s leaves block 0 (0 s to 3 s) wholly older.
    s.Retention().SetTrackMaxAge(1, Ns(5 * kSecond));
    Protocol::TrackInfo info = Info(s, 1);
    EXPECT_EQ(info.max_age().nanoseconds(), 5 * kSecond);
    EXPECT_EQ(info.oldest().nanoseconds(), 3 * kSecond);
    EXPECT_THROW(s.Retention().SetTrackMaxAge(1, Ns(-1)), std::runtime_error);
    EXPECT_THROW(s.Retention().SetTrackMaxAge(9, Ns(kSecond)), std::runtime_error);
    EXPECT_EQ(Info(s, 1).max_age().nanoseconds(), 5 * kSecond);

    // At start-up, after the protections are back: the protected block stays.
    s.Stop();
    now = 30 * kSecond;
    s.Start();
    info = Info(s, 1);
    EXPECT_EQ(info.max_age().nanoseconds(), 5 * kSecond);
    EXPECT_EQ(info.oldest().nanoseconds(), 6 * kSecond);
    EXPECT_EQ(info.current_size(), blockBytes);
    ExpectFilesConserved(s);

    // Periodically, never blocking a writer: the purged files take new chunks.
    s.Stop();
    s.SetUpkeep([&] { return TimePoint::FromNanoseconds(now.load()); },
                std::chrono::milliseconds(1));
    s.Start();
    RecordSeconds(s, 1, 30, 6);  // blocks 30, 33
    {
        RunCounter counter;
        now = 41 * kSecond;  // block 30 ends at 33 s, block 33 at 36 s
        counter.WaitFor(2);
    }
    info = Info(s, 1);
    EXPECT_EQ(info.oldest().nanoseconds(), 6 * kSecond);
    EXPECT_EQ(info.beginning().nanoseconds(), 0);  // nothing recyclable is left
    EXPECT_EQ(info.current_size(), blockBytes);

    // The policy goes with the track; the same id starts without one.
    s.Tracks().Unprotect(protection);
    Protocol::TrackParameters out;
    s.Tracks().DeleteTrack(1, out);
    ASSERT_EQ(s.CreateTrack(1, 2), 1);
    EXPECT_EQ(Info(s, 1).max_age().nanoseconds(), 0);
    ExpectFilesConserved(s);
}

}  // namespace
}  // namespace loopstore::test
