#include "Storage/Indexes/Ram/ChunkCache.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Platform/Logging/LogCapture.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "tests/Support/TestTime.h"

using loopstore::test::Ns;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {

std::shared_ptr<DataChunk> MakeChunk(int64_t start, int64_t duration) {
    return std::make_shared<DataChunk>(Ns(start), Ns(duration), "payload");
}

// Inserts a chunk spanning [start, start + duration).
bool Insert(ChunkCache& cache, int64_t start, int64_t duration, unsigned long size) {
    return cache.InsertAndRemoveHandledChunks(MakeChunk(start, duration), Ns(start), size);
}

bool Holds(const ChunkCache& cache, int64_t start) {
    auto chunk = cache.GetChunk(Ns(start));
    return chunk != nullptr && chunk->GetTimePoint() == Ns(start);
}

int64_t StartOf(const std::shared_ptr<DataChunk>& chunk) {
    return chunk ? chunk->GetTimePoint().ToNanoseconds() : -1;
}

std::string InsertError(ChunkCache& cache, int64_t start, unsigned long size) {
    try {
        Insert(cache, start, 10, size);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

std::string Text(TimePoint t) {
    std::ostringstream os;
    os << t;
    return os.str();
}

}  // namespace

TEST(ChunkCache, WithoutLimitRefusesEverything) {
    ChunkCache cache;
    EXPECT_EQ(cache.GetMaximumSize(), 0u);
    EXPECT_EQ(cache.GetFillPercentage(), 100u);
    EXPECT_FALSE(cache.SpaceForChunks(0));
    // No byte bound yet, so even a large chunk is not an error: it just never fits.
    EXPECT_FALSE(Insert(cache, 0, 10, 1000000));
    EXPECT_FALSE(Insert(cache, 100, 10, 0));
    EXPECT_EQ(cache.GetChunk(Ns(0)), nullptr);
    EXPECT_EQ(cache.GetCurrentSize(), 0u);
}

TEST(ChunkCache, ChunksModeEvictsOldestHandledOnly) {
    ChunkCache cache;
    cache.SetCacheSizeInChunks(3);
    EXPECT_TRUE(cache.SpaceForChunks(1ul << 40));  // size ignored in this mode
    for (int64_t t : {0, 10, 20})
        ASSERT_TRUE(Insert(cache, t, 10, 500));
    EXPECT_EQ(cache.GetCurrentSize(), 3u);
    EXPECT_FALSE(Insert(cache, 30, 10, 500));
    EXPECT_FALSE(Holds(cache, 30));

    cache.HandleChunk(Ns(10), false);
    EXPECT_TRUE(Holds(cache, 10));  // handled chunks stay readable
    ASSERT_TRUE(Insert(cache, 30, 10, 500));
    EXPECT_TRUE(Holds(cache, 0)) << "unhandled older chunk must stay";
    EXPECT_FALSE(Holds(cache, 10));
    EXPECT_TRUE(Holds(cache, 20));
    EXPECT_TRUE(Holds(cache, 30));
    EXPECT_EQ(cache.GetCurrentSize(), 3u);
    EXPECT_FALSE(Insert(cache, 40, 10, 500));
}

TEST(ChunkCache, BytesModeLimitsAndEvictsOnlyAsFarAsNeeded) {
    ChunkCache cache;
    cache.SetCacheSizeInBytes(100);
    EXPECT_EQ(InsertError(cache, 0, 101), "Chunk size 101 must be lower than max cache size 100");
    EXPECT_EQ(cache.GetCurrentSize(), 0u);
    ASSERT_TRUE(Insert(cache, 0, 10, 100));  // exactly the limit, empty cache
    EXPECT_EQ(cache.GetFillPercentage(), 100u);
    EXPECT_FALSE(Insert(cache, 10, 10, 1));
    cache.HandleChunk(Ns(0), false);
    ASSERT_TRUE(Insert(cache, 10, 10, 30));
    ASSERT_TRUE(Insert(cache, 20, 10, 30));
    ASSERT_TRUE(Insert(cache, 30, 10, 30));
    EXPECT_EQ(cache.GetCurrentSize(), 90u);
    EXPECT_EQ(cache.GetFillPercentage(), 90u);

    for (int64_t t : {10, 20, 30})
        cache.HandleChunk(Ns(t), false);
    cache.HandleChunk(Ns(999), false);  // unknown: ignored
    // 90 + 50 needs two evictions (to 30), not three.
    ASSERT_TRUE(Insert(cache, 40, 10, 50));
    EXPECT_FALSE(Holds(cache, 10));
    EXPECT_FALSE(Holds(cache, 20));
    EXPECT_TRUE(Holds(cache, 30));
    EXPECT_EQ(cache.GetCurrentSize(), 80u);
}

TEST(ChunkCache, RefusesTimePointsNotAfterTheLastOne) {
    LogCapture capture("ChunkCache");
    ChunkCache cache;
    cache.SetCacheSizeInBytes(1000);
    ASSERT_TRUE(Insert(cache, 100, 10, 10));
    EXPECT_TRUE(
        capture.HasExactly("Inserted chunk at " + Text(Ns(100)) + ". Cache size is 10 (1%)"));

    const std::string equal =
        "Chunk at " + Text(Ns(100)) + " must be > highest timepoint in cache: " + Text(Ns(100));
    EXPECT_EQ(InsertError(cache, 100, 10), equal);
    EXPECT_EQ(capture.LevelOf(equal), 50);
    EXPECT_EQ(
        InsertError(cache, 50, 10),
        "Chunk at " + Text(Ns(50)) + " must be > highest timepoint in cache: " + Text(Ns(100)));
    EXPECT_EQ(cache.GetCurrentSize(), 10u);
    EXPECT_FALSE(Holds(cache, 50));
    EXPECT_TRUE(Insert(cache, 101, 10, 10));
}

TEST(ChunkCache, LookupsAtSpanEndsAndGaps) {
    ChunkCache cache;
    cache.SetCacheSizeInChunks(10);
    EXPECT_EQ(cache.GetChunk(Ns(0)), nullptr);
    EXPECT_EQ(cache.GetPreviousChunk(Ns(0)), nullptr);
    EXPECT_EQ(cache.GetNextChunk(Ns(0)), nullptr);

    // [100,110) [110,120) gap [150,160)
    ASSERT_TRUE(Insert(cache, 100, 10, 1));
    ASSERT_TRUE(Insert(cache, 110, 10, 1));
    ASSERT_TRUE(Insert(cache, 150, 10, 1));

    EXPECT_EQ(StartOf(cache.GetChunk(Ns(99))), -1);
    EXPECT_EQ(StartOf(cache.GetChunk(Ns(100))), 100);
    EXPECT_EQ(StartOf(cache.GetChunk(Ns(119))), 110);
    EXPECT_EQ(StartOf(cache.GetChunk(Ns(120))), -1);  // end is exclusive
    EXPECT_EQ(StartOf(cache.GetChunk(Ns(135))), -1);  // gap
    EXPECT_EQ(StartOf(cache.GetChunk(Ns(160))), -1);

    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(99))), -1);
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(105))), -1);  // inside the first
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(110))), 100);
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(120))), 110);  // at the end of 110
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(135))), 110);  // in the gap
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(155))), 110);
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(160))), 150);
    EXPECT_EQ(StartOf(cache.GetPreviousChunk(Ns(1000))), 150);

    EXPECT_EQ(StartOf(cache.GetNextChunk(Ns(0))), 100);  // before the first
    EXPECT_EQ(StartOf(cache.GetNextChunk(Ns(100))), 110);
    EXPECT_EQ(StartOf(cache.GetNextChunk(Ns(105))), 110);
    EXPECT_EQ(StartOf(cache.GetNextChunk(Ns(135))), 150);
    EXPECT_EQ(StartOf(cache.GetNextChunk(Ns(150))), -1);
    EXPECT_EQ(StartOf(cache.GetNextChunk(Ns(155))), -1);
}

TEST(ChunkCache, LoweringTheLimitKeepsChunks) {
    ChunkCache cache;
    cache.SetCacheSizeInBytes(1000);
    for (int64_t t : {0, 10, 20})
        ASSERT_TRUE(Insert(cache, t, 10, 300));
    cache.SetCacheSizeInBytes(600);
    EXPECT_EQ(cache.GetCurrentSize(), 900u);
    EXPECT_EQ(cache.GetFillPercentage(), 150u);
    EXPECT_FALSE(cache.SpaceForChunks(0));
    for (int64_t t : {0, 10, 20})
        EXPECT_TRUE(Holds(cache, t));

    cache.SetCacheSizeInChunks(2);
    EXPECT_EQ(cache.GetCurrentSize(), 3u);
    EXPECT_EQ(cache.GetFillPercentage(), 150u);
    cache.SetCacheSizeInBytes(1000);  // recomputed from the recorded sizes
    EXPECT_EQ(cache.GetCurrentSize(), 900u);

    cache.Clear();
    EXPECT_EQ(cache.GetCurrentSize(), 0u);
    EXPECT_EQ(cache.GetMaximumSize(), 1000u);
    EXPECT_FALSE(Holds(cache, 0));
    EXPECT_TRUE(Insert(cache, 0, 10, 1000));  // still in byte mode
}

TEST(ChunkCache, RemovingAHandledChunkBlocksEvictionUntilClear) {
    LogCapture capture("ChunkCache");
    ChunkCache cache;
    cache.SetCacheSizeInChunks(2);
    ASSERT_TRUE(Insert(cache, 0, 10, 100));
    ASSERT_TRUE(Insert(cache, 10, 10, 100));
    cache.HandleChunk(Ns(0), false);
    cache.HandleChunk(Ns(0), true);
    EXPECT_TRUE(capture.HasExactly("Removed chunk at " + Text(Ns(0)) + ". Cache size is 1 (50%)"));
    EXPECT_FALSE(Holds(cache, 0));
    ASSERT_TRUE(Insert(cache, 20, 10, 100));  // room without eviction

    // 0 is still marked handled but has no size any more; it is the oldest
    // handled time point, so it keeps blocking even once 10 is handled.
    cache.HandleChunk(Ns(10), false);
    const std::string expected =
        "We expected to find the size corresponding for the chunk at " + Text(Ns(0));
    EXPECT_FALSE(Insert(cache, 30, 10, 100));
    EXPECT_FALSE(Insert(cache, 30, 10, 100));
    EXPECT_EQ(capture.Count(expected), 2u);
    EXPECT_EQ(capture.LevelOf(expected), 40);
    EXPECT_TRUE(Holds(cache, 10));

    cache.Clear();
    EXPECT_TRUE(Insert(cache, 30, 10, 100));
    EXPECT_TRUE(Insert(cache, 40, 10, 100));
}

TEST(ChunkCacheManager, OneCachePerLow32BitsOfTheTrackId) {
    ChunkCacheManager manager;
    ThreadedChunkCache* one = manager.GetChunkCache(1);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(manager.GetChunkCache(1), one);
    EXPECT_EQ(manager.GetChunkCache(4294967297), one);
    EXPECT_NE(manager.GetChunkCache(2), one);
    EXPECT_EQ(manager.GetChunkCache(-1), manager.GetChunkCache(4294967295));

    // A new cache is bounded at 100 MiB.
    ThreadedChunkCache* cache = manager.GetChunkCache(3);
    EXPECT_THROW(cache->Insert(MakeChunk(0, 10), Ns(0), 104857601), std::runtime_error);
    EXPECT_FALSE(cache->Insert(MakeChunk(0, 10), Ns(0), 104857600));
    EXPECT_EQ(cache->GetCacheSize(), 104857600u);
}
