#include "Storage/Indexes/Ram/CacheBudget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "Platform/Logging/LogCapture.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/TestTime.h"

using loopstore::test::Ns;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;
using Moreld::Tools::SyncPoint;
using tav::mr::logging::LogCapture;

namespace {

std::shared_ptr<DataChunk> MakeChunk(int64_t start) {
    return std::make_shared<DataChunk>(Ns(start), Ns(10), "payload");
}

bool Cached(ThreadedChunkCache& cache, int64_t t) {
    return cache.GetChunk(Ns(t)) != nullptr;
}

// Hands every chunk straight back as written, like a writer on a fast disk.
class HandlingFlusher : public IChunkFlusher {
  public:
    explicit HandlingFlusher(ThreadedChunkCache& cache) : cache_(cache) {}
    FileSystem::Chunk Flush(std::shared_ptr<DataChunk> chunk) override {
        if (chunk)
            cache_.HandleChunk(chunk->GetTimePoint(), false);
        ++flushed_;
        return {};
    }
    void CacheIsWaiting(bool) override {}
    long Flushed() const { return flushed_; }

  private:
    ThreadedChunkCache& cache_;
    std::atomic<long> flushed_{0};
};

}  // namespace

// Two tracks share 300 bytes. Written chunks go in the order they were
// written, whatever their track; unwritten ones stay, and an insertion that
// finds only those waits until another track's chunk is written.
TEST(CacheBudget, DropsOldestWrittenChunksAcrossTracksAndWaitsForUnwritten) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    LogCapture quiet("ThreadedChunkCache", 50);
    ChunkCacheManager manager;
    manager.GetBudget().SetLimit(300);
    ThreadedChunkCache& a = *manager.GetChunkCache(1);
    ThreadedChunkCache& b = *manager.GetChunkCache(2);

    a.Insert(MakeChunk(0), Ns(0), 100);
    b.Insert(MakeChunk(0), Ns(0), 100);
    a.Insert(MakeChunk(10), Ns(10), 100);
    b.HandleChunk(Ns(0), false);  // written first
    a.HandleChunk(Ns(0), false);

    EXPECT_FALSE(a.Insert(MakeChunk(20), Ns(20), 100));
    EXPECT_FALSE(Cached(b, 0));  // the oldest written, of the other track
    EXPECT_TRUE(Cached(a, 0));
    EXPECT_FALSE(b.Insert(MakeChunk(10), Ns(10), 100));
    EXPECT_FALSE(Cached(a, 0));
    EXPECT_TRUE(Cached(a, 10));  // never written: never dropped
    CacheBudget::Usage usage = manager.GetBudget().GetUsage();
    EXPECT_EQ(usage.bytesInUse, 300u);
    EXPECT_EQ(usage.limit, 300u);
    EXPECT_EQ(usage.chunksDropped, 2u);

    // Only unwritten chunks are left: the insertion waits, holding no lock
    // of its cache, until track 2 writes a chunk.
    std::latch waiting(1);
    SyncPoint::Instance().SetCallback("ThreadedChunkCache::AwaitBudget:Waiting",
                                      [&] { waiting.count_down(); });
    bool waited = false;
    std::thread inserter([&] { waited = a.Insert(MakeChunk(30), Ns(30), 100); });
    waiting.wait();
    EXPECT_TRUE(Cached(a, 20));  // readers of the waiting track get through
    b.HandleChunk(Ns(10), false);
    inserter.join();
    SyncPoint::Instance().ClearAll();
    EXPECT_TRUE(waited);
    EXPECT_FALSE(Cached(b, 10));
    EXPECT_TRUE(Cached(a, 10) && Cached(a, 20) && Cached(a, 30));
    EXPECT_EQ(manager.GetBudget().GetUsage().bytesInUse, 300u);

    // Removal and clearing give the bytes back.
    a.HandleChunk(Ns(10), true);
    EXPECT_EQ(manager.GetBudget().GetUsage().bytesInUse, 200u);
    a.Clear();
    EXPECT_EQ(manager.GetBudget().GetUsage().bytesInUse, 0u);
}

// Without a limit the budget only counts; each cache keeps its own bound and
// its own refusals, and no cache needs a bound above the budget.
TEST(CacheBudget, NoLimitOnlyCountsAndBoundsStayTheCaches) {
    ChunkCacheManager manager;
    ThreadedChunkCache& cache = *manager.GetChunkCache(1);
    EXPECT_EQ(cache.BoundWithinBudget(50000000), 50000000u);
    cache.SetCacheSizeInBytes(250);
    cache.Insert(MakeChunk(0), Ns(0), 100);
    cache.HandleChunk(Ns(0), false);
    cache.Insert(MakeChunk(10), Ns(10), 100);
    cache.Insert(MakeChunk(20), Ns(20), 100);  // evicts 0 on its own bound
    EXPECT_FALSE(Cached(cache, 0));
    EXPECT_THROW(cache.Insert(MakeChunk(30), Ns(30), 251), std::runtime_error);
    CacheBudget::Usage usage = manager.GetBudget().GetUsage();
    EXPECT_EQ(usage.bytesInUse, 200u);
    EXPECT_EQ(usage.limit, 0u);
    EXPECT_EQ(usage.chunksDropped, 0u);

    manager.GetBudget().SetLimit(1000);
    EXPECT_EQ(cache.BoundWithinBudget(50000000), 1000u);
    EXPECT_EQ(cache.BoundWithinBudget(500), 500u);
}

// Several tracks write at once through their flusher threads under a budget
// of a few chunks: every chunk reaches its flusher, and the cached bytes
// never exceed the budget.
TEST(CacheBudget, ConcurrentWritersStayWithinTheBudget) {
    LogCapture quiet("ThreadedChunkCache", 50);
    constexpr int kTracks = 4;
    constexpr int64_t kChunks = 500;
    constexpr uint64_t kLimit = 600;
    ChunkCacheManager manager;
    manager.GetBudget().SetLimit(kLimit);
    std::vector<std::unique_ptr<HandlingFlusher>> flushers;
    for (int track = 0; track < kTracks; ++track) {
        ThreadedChunkCache& cache = *manager.GetChunkCache(track);
        flushers.push_back(std::make_unique<HandlingFlusher>(cache));
        cache.SetChunkFlusher(flushers.back().get());
        // Above the budget: every chunk that leaves is one the budget dropped.
        cache.SetCacheSizeInBytes(50000000);
        cache.Run();
    }
    std::atomic<bool> exceeded{false};
    std::vector<std::thread> writers;
    for (int track = 0; track < kTracks; ++track) {
        writers.emplace_back([&, track] {
            ThreadedChunkCache& cache = *manager.GetChunkCache(track);
            for (int64_t i = 0; i < kChunks; ++i) {
                cache.Insert(MakeChunk(i * 10), Ns(i * 10), 100);
                if (manager.GetBudget().GetUsage().bytesInUse > kLimit)
                    exceeded = true;
            }
        });
    }
    for (auto& writer : writers)
        writer.join();
    for (int track = 0; track < kTracks; ++track)
        manager.GetChunkCache(track)->Stop();

    EXPECT_FALSE(exceeded);
    for (const auto& flusher : flushers)
        EXPECT_EQ(flusher->Flushed(), kChunks);
    const CacheBudget::Usage usage = manager.GetBudget().GetUsage();
    EXPECT_LE(usage.bytesInUse, kLimit);
    EXPECT_EQ(usage.chunksDropped * 100 + usage.bytesInUse, kTracks * kChunks * 100);
}

// A writer's close clears its cache. Under a limit the caches' memory is
// bounded together, so the heap goes back to the system once, when the last
// cache empties, not at every close (each trim walks every arena and flushes
// the TLB of every core). Without a limit every clear trims, as it always did.
TEST(CacheBudget, OnlyTheLastCacheToEmptyTrimsTheHeapUnderALimit) {
    ChunkCacheManager manager;
    ThreadedChunkCache& a = *manager.GetChunkCache(1);
    ThreadedChunkCache& b = *manager.GetChunkCache(2);
    auto fill = [&] {
        a.Insert(MakeChunk(0), Ns(0), 100);
        b.Insert(MakeChunk(0), Ns(0), 100);
    };
    uint64_t trims = ChunkCache::GetHeapTrimCount();
    fill();
    a.Clear();
    b.Clear();
    EXPECT_EQ(ChunkCache::GetHeapTrimCount(), trims + 2);

    manager.GetBudget().SetLimit(1000);
    trims = ChunkCache::GetHeapTrimCount();
    fill();
    a.Clear();  // b still holds a chunk
    EXPECT_EQ(ChunkCache::GetHeapTrimCount(), trims);
    EXPECT_EQ(manager.GetBudget().GetUsage().bytesInUse, 100u);
    b.Clear();
    EXPECT_EQ(ChunkCache::GetHeapTrimCount(), trims + 1);
    EXPECT_EQ(manager.GetBudget().GetUsage().bytesInUse, 0u);
    a.Clear();  // already empty: nothing is held anywhere
    EXPECT_EQ(ChunkCache::GetHeapTrimCount(), trims + 2);
}
