#include "Storage/Indexes/Ram/ChunkCacheManager.h"

#include "Platform/Tools/MutexLock.h"

ChunkCacheManager::~ChunkCacheManager() = default;

namespace {

// The key is the id's low 32 bits; ids that share them share a cache.
int32_t CacheKey(long trackId) {
    return static_cast<int32_t>(static_cast<uint32_t>(trackId));
}

}  // namespace

ThreadedChunkCache* ChunkCacheManager::GetChunkCache(long trackId) {
    Moreld::Tools::MutexLock lock(mutex_);
    std::unique_ptr<ThreadedChunkCache>& cache = caches_[CacheKey(trackId)];
    if (!cache) {
        cache = std::make_unique<ThreadedChunkCache>();
        cache->SetBudget(&budget_);
        cache->SetPayloadPool(payloadPool_);
    }
    return cache.get();
}

ThreadedChunkCache* ChunkCacheManager::FindChunkCache(long trackId) {
    Moreld::Tools::MutexLock lock(mutex_);
    auto it = caches_.find(CacheKey(trackId));
    return it == caches_.end() ? nullptr : it->second.get();
}
