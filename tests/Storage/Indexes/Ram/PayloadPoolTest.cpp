#include "Storage/Indexes/Ram/PayloadPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Storage/Indexes/Ram/ChunkCacheManager.h"

namespace {

std::string Buffer(size_t bytes) {
    return std::string(bytes, 'x');
}

}  // namespace

// A chunk's payload comes back when its last holder lets go, whichever that
// is, and the next chunk starts with it, emptied; what the bound cannot
// hold, and buffers too small to matter, go back to the heap.
TEST(PayloadPool, ChunksReturnTheirBuffersWithinTheBound) {
    auto pool = std::make_shared<PayloadPool>(3 * 8192);
    PayloadPool::DataChunkPtr chunk = pool->MakeChunk();
    EXPECT_TRUE(chunk->GetData().empty());
    chunk->MutableData() = Buffer(8192);
    const char* bytes = chunk->GetData().data();
    PayloadPool::DataChunkPtr reader = chunk;  // a reader still holds it
    chunk.reset();
    EXPECT_EQ(pool->KeptBuffers(), 0u);
    reader.reset();
    EXPECT_EQ(pool->KeptBuffers(), 1u);

    PayloadPool::DataChunkPtr next = pool->MakeChunk();
    EXPECT_TRUE(next->GetData().empty());
    EXPECT_EQ(next->GetData().data(), bytes);
    EXPECT_EQ(pool->KeptBytes(), 0u);

    pool->Give(Buffer(PayloadPool::kSmallestKept - 100));
    EXPECT_EQ(pool->KeptBuffers(), 0u);
    for (int i = 0; i < 4; ++i)
        pool->Give(Buffer(8192));
    EXPECT_EQ(pool->KeptBuffers(), 3u);
    EXPECT_EQ(pool->KeptBytes(), 3u * 8192);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(pool->Take().capacity(), 8192u);
    EXPECT_EQ(pool->Take().capacity(), std::string().capacity());
}

// Chunks may outlive the caches and their manager (a host still holding a
// chunk): the pool lives as long as its last chunk. Chunks die on several
// threads while others are made.
TEST(PayloadPool, ChunksOutliveTheManagerAndDieOnAnyThread) {
    std::vector<PayloadPool::DataChunkPtr> held;
    {
        ChunkCacheManager caches;
        ThreadedChunkCache& cache = *caches.GetChunkCache(1);
        for (int i = 0; i < 64; ++i) {
            held.push_back(cache.MakeChunk());
            held.back()->MutableData() = Buffer(5000);
        }
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&held, t] {
            for (size_t i = t; i < held.size(); i += 4)
                held[i].reset();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::count(held.begin(), held.end(), nullptr), 64);
}
