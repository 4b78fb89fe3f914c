#include "Storage/Indexes/Ram/ChunkCacheManager.h"

#include "Platform/Tools/MutexLock.h"

ChunkCacheManager::~ChunkCacheManager() = default;

ThreadedChunkCache* ChunkCacheManager::GetChunkCache(long trackId) {
    Moreld::Tools::MutexLock lock(mutex_);
    // The key is the id's low 32 bits; ids that share them share a cache.
    const auto key = static_cast<int32_t>(static_cast<uint32_t>(trackId));
    std::unique_ptr<ThreadedChunkCache>& cache = caches_[key];
    if (!cache) {
        cache = std::make_unique<ThreadedChunkCache>();
        cache->SetBudget(&budget_);
        cache->SetPayloadPool(payloadPool_);
    }
    return cache.get();
}
