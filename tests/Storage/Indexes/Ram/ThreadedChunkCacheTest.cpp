#include "Storage/Indexes/Ram/ThreadedChunkCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Platform/Logging/LogCapture.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "tests/Support/TestTime.h"

using loopstore::test::Ns;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {

std::shared_ptr<DataChunk> MakeChunk(int64_t start, int64_t duration = 10) {
    return std::make_shared<DataChunk>(Ns(start), Ns(duration), "payload");
}

// Records what the cache's thread hands over and, like the track writer,
// reports each chunk handled once "written". A closed gate holds Flush back:
// the test decides when the disk is done.
class FakeFlusher : public IChunkFlusher {
  public:
    explicit FakeFlusher(ThreadedChunkCache& cache) : cache_(cache) {}

    FileSystem::Chunk Flush(std::shared_ptr<DataChunk> chunk) override {
        std::unique_lock<std::mutex> lock(mutex_);
        flushed_.push_back(chunk ? chunk->GetTimePoint().ToNanoseconds() : -1);
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        lock.unlock();
        if (chunk)
            cache_.HandleChunk(chunk->GetTimePoint(), false);
        return {};
    }

    // Runs under the cache's exclusive lock: only our own mutex here.
    void CacheIsWaiting(bool waiting) override {
        std::lock_guard<std::mutex> lock(mutex_);
        waits_.push_back(waiting);
        changed_.notify_all();
    }

    void SetOpen(bool open) {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = open;
        changed_.notify_all();
    }
    void AwaitFlushed(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return flushed_.size() >= count; });
    }
    void AwaitWaits(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return waits_.size() >= count; });
    }
    std::vector<int64_t> Flushed() {
        std::lock_guard<std::mutex> lock(mutex_);
        return flushed_;
    }
    std::vector<bool> Waits() {
        std::lock_guard<std::mutex> lock(mutex_);
        return waits_;
    }

  private:
    ThreadedChunkCache& cache_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = true;              // guarded by mutex_
    std::vector<int64_t> flushed_;  // guarded by mutex_
    std::vector<bool> waits_;       // guarded by mutex_
};

}  // namespace

TEST(ThreadedChunkCache, FullCacheBlocksInsertUntilFlusherHandles) {
    LogCapture capture("ThreadedChunkCache");
    ThreadedChunkCache cache;
    FakeFlusher flusher(cache);
    cache.SetChunkFlusher(&flusher);
    cache.SetTrackId(7);
    cache.SetCacheSizeInChunks(1);
    flusher.SetOpen(false);
    cache.Run();

    EXPECT_FALSE(cache.Insert(MakeChunk(0), Ns(0), 100));
    flusher.AwaitFlushed(1);  // the thread holds chunk 0, not yet handled

    std::atomic<bool> secondWaited{false};
    std::thread inserter([&] { secondWaited = cache.Insert(MakeChunk(10), Ns(10), 100); });
    flusher.AwaitWaits(1);
    EXPECT_EQ(flusher.Waits(), std::vector<bool>{true});
    // The blocked insertion holds no lock while waiting: readers get through.
    EXPECT_NE(cache.GetChunk(Ns(0)), nullptr);
    EXPECT_EQ(cache.GetChunk(Ns(10)), nullptr);

    flusher.SetOpen(true);
    inserter.join();
    EXPECT_TRUE(secondWaited);
    EXPECT_EQ(flusher.Waits(), (std::vector<bool>{true, false}));
    EXPECT_EQ(cache.GetChunk(Ns(0)), nullptr);  // evicted for chunk 10
    EXPECT_NE(cache.GetChunk(Ns(10)), nullptr);

    cache.Stop();
    EXPECT_EQ(flusher.Flushed(), (std::vector<int64_t>{0, 10}));
    EXPECT_TRUE(capture.HasExactly("T7: Waiting to insert chunk at " + Ns(10).ToString()));
    EXPECT_EQ(capture.LevelOf("T7: Waiting to insert chunk"), 40);
    EXPECT_TRUE(capture.HasExactly("T7: Handled chunk at " + Ns(0).ToString()));
}

TEST(ThreadedChunkCache, StopDeliversEveryInsertedChunkInOrder) {
    ThreadedChunkCache cache;
    FakeFlusher flusher(cache);
    cache.SetChunkFlusher(&flusher);
    const std::vector<int64_t> five{0, 10, 20, 30, 40};

    // Queued before the thread exists: Stop right after Run must still drain.
    for (int64_t t : five)
        ASSERT_FALSE(cache.Insert(MakeChunk(t), Ns(t), 100));
    cache.Run();
    cache.Stop();
    EXPECT_EQ(flusher.Flushed(), five);

    // Queued while the thread is busy, with Stop racing the held-back flusher.
    ThreadedChunkCache busy;
    FakeFlusher slow(busy);
    busy.SetChunkFlusher(&slow);
    slow.SetOpen(false);
    busy.Run();
    for (int64_t t : five)
        ASSERT_FALSE(busy.Insert(MakeChunk(t), Ns(t), 100));
    slow.AwaitFlushed(1);
    std::thread stopper([&] { busy.Stop(); });
    slow.SetOpen(true);
    stopper.join();
    EXPECT_EQ(slow.Flushed(), five);
}

TEST(ThreadedChunkCache, StopIsIdempotentAndRunRestarts) {
    ThreadedChunkCache cache;
    cache.Stop();  // never started
    FakeFlusher flusher(cache);
    cache.SetChunkFlusher(&flusher);
    cache.Run();
    cache.Run();  // restarts
    cache.Insert(MakeChunk(0), Ns(0), 100);
    cache.Stop();
    cache.Stop();
    cache.Insert(MakeChunk(10), Ns(10), 100);  // waits for the next Run
    EXPECT_EQ(flusher.Flushed(), std::vector<int64_t>{0});
    cache.Run();
    cache.Stop();
    EXPECT_EQ(flusher.Flushed(), (std::vector<int64_t>{0, 10}));

    // Without a flusher, chunks are taken and dropped.
    ThreadedChunkCache bare;
    bare.Run();
    bare.Insert(MakeChunk(0), Ns(0), 100);
    bare.Stop();
    EXPECT_NE(bare.GetChunk(Ns(0)), nullptr);
}

TEST(ThreadedChunkCache, ClearDropsPendingChunks) {
    ThreadedChunkCache cache;
    FakeFlusher flusher(cache);
    cache.SetChunkFlusher(&flusher);
    flusher.SetOpen(false);
    cache.Run();
    cache.Insert(MakeChunk(0), Ns(0), 100);
    flusher.AwaitFlushed(1);
    cache.Insert(MakeChunk(10), Ns(10), 100);
    cache.Insert(MakeChunk(20), Ns(20), 100);

    cache.Clear();
    EXPECT_EQ(cache.GetCacheSize(), 0u);
    EXPECT_EQ(cache.GetChunk(Ns(10)), nullptr);
    flusher.SetOpen(true);  // handling 0 now finds nothing

    // The cache forgot 20: an earlier time point is fine again.
    EXPECT_FALSE(cache.Insert(MakeChunk(15), Ns(15), 100));
    EXPECT_FALSE(cache.Insert(MakeChunk(30), Ns(30), 100));
    cache.Stop();
    EXPECT_EQ(flusher.Flushed(), (std::vector<int64_t>{0, 15, 30}));
    EXPECT_EQ(cache.GetCacheSize(), 200u);
}

TEST(ThreadedChunkCache, RefusedInsertQueuesNothing) {
    ThreadedChunkCache cache;
    FakeFlusher flusher(cache);
    cache.SetChunkFlusher(&flusher);
    cache.SetCacheSizeInBytes(1000);
    cache.Insert(MakeChunk(100), Ns(100), 100);
    EXPECT_THROW(cache.Insert(MakeChunk(100), Ns(100), 100), std::runtime_error);
    EXPECT_THROW(cache.Insert(MakeChunk(50), Ns(50), 100), std::runtime_error);
    EXPECT_THROW(cache.Insert(MakeChunk(200), Ns(200), 1001), std::runtime_error);
    EXPECT_EQ(cache.GetCacheSize(), 100u);

    cache.Run();
    cache.Stop();
    EXPECT_EQ(flusher.Flushed(), std::vector<int64_t>{100});
    // The lock was released by the throws: further use works.
    EXPECT_FALSE(cache.Insert(MakeChunk(200), Ns(200), 100));
}

TEST(ThreadedChunkCache, ReadersRunWhileInsertingAndHandling) {
    LogCapture quiet("ThreadedChunkCache", 50);  // thousands of "Waiting" lines otherwise
    constexpr int64_t kChunks = 2000;
    constexpr int64_t kDuration = 10;
    ThreadedChunkCache cache;
    FakeFlusher flusher(cache);
    cache.SetChunkFlusher(&flusher);
    cache.SetCacheSizeInChunks(4);
    cache.Run();

    std::atomic<bool> done{false};
    std::atomic<long> found{0};
    auto reader = [&](uint64_t seed) {
        while (!done) {
            seed = seed * 6364136223846793005u + 1442695040888963407u;
            const TimePoint t = Ns(static_cast<int64_t>((seed >> 33) % (kChunks * kDuration)));
            if (auto chunk = cache.GetChunk(t)) {
                EXPECT_LE(chunk->GetTimePoint(), t);
                EXPECT_LT(t, chunk->GetTimePoint() + chunk->GetDuration());
                ++found;
            }
            if (auto next = cache.GetNextChunk(t)) {
                EXPECT_GT(next->GetTimePoint(), t);
            }
            if (auto previous = cache.GetPreviousChunk(t)) {
                EXPECT_LE(previous->GetTimePoint() + previous->GetDuration(), t);
            }
        }
    };
    std::vector<std::thread> readers;
    for (uint64_t seed : {1u, 2u, 3u})
        readers.emplace_back(reader, seed);

    std::vector<int64_t> expected;
    for (int64_t i = 0; i < kChunks; ++i) {
        const int64_t t = i * kDuration;
        cache.Insert(MakeChunk(t, kDuration), Ns(t), 100);
        expected.push_back(t);
    }
    done = true;
    for (auto& thread : readers)
        thread.join();
    cache.Stop();

    EXPECT_EQ(flusher.Flushed(), expected);
    EXPECT_LE(cache.GetCacheSize(), 4u);
    const std::vector<bool> waits = flusher.Waits();
    for (size_t i = 0; i < waits.size(); ++i)
        EXPECT_EQ(waits[i], i % 2 == 0) << "at " << i;
}

TEST(ChunkCacheManager, ConcurrentCallersGetTheSameCaches) {
    ChunkCacheManager manager;
    constexpr int kThreads = 4;
    constexpr long kTracks = 50;
    std::vector<std::vector<ThreadedChunkCache*>> seen(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (long id = 0; id < kTracks; ++id)
                seen[i].push_back(manager.GetChunkCache(id));
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (int i = 1; i < kThreads; ++i)
        EXPECT_EQ(seen[i], seen[0]);
    EXPECT_EQ(std::set<ThreadedChunkCache*>(seen[0].begin(), seen[0].end()).size(),
              static_cast<size_t>(kTracks));

    // Destruction stops running flusher threads.
    manager.GetChunkCache(1)->Run();
    manager.GetChunkCache(1)->Insert(MakeChunk(0), Ns(0), 100);
}
