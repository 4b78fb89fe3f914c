#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Platform/Tools/Mutex.h"
#include "Storage/Indexes/Ram/CacheBudget.h"
#include "Storage/Indexes/Ram/ThreadedChunkCache.h"

// The registry that gives every track its one ThreadedChunkCache, created on
// first request and kept until the registry is destroyed.
//
// Caches are keyed by the low 32 bits of the track id, so two tracks whose ids
// agree there share one cache. Every cache charges its chunks to the one
// CacheBudget the manager owns; its limit is 0 (none) until the host sets it.
// Their chunks' payload buffers go round through one PayloadPool.
//
// Thread safety: GetChunkCache is safe from any thread (one mutex guards the
// map). The caches themselves follow ThreadedChunkCache's contract.
class ChunkCacheManager {
  public:
    ChunkCacheManager() = default;
    // Destroys every cache, which stops (drains) its flusher thread.
    virtual ~ChunkCacheManager();
    ChunkCacheManager(const ChunkCacheManager&) = delete;
    ChunkCacheManager& operator=(const ChunkCacheManager&) = delete;

    // The track's cache, created with ThreadedChunkCache's defaults when
    // missing. Never null; owned by the manager for its whole life.
    ThreadedChunkCache* GetChunkCache(long trackId);
    // The track's cache when one was made, else null: for readers that must
    // not create one.
    ThreadedChunkCache* FindChunkCache(long trackId);
    // Shared by every cache; lives as long as the manager.
    CacheBudget& GetBudget() { return budget_; }
    // Shared by every cache; outlives the last chunk made from it.
    PayloadPool& GetPayloadPool() { return *payloadPool_; }

  private:
    // Declared first: destroyed after the caches, which give it back their
    // bytes.
    CacheBudget budget_;
    const std::shared_ptr<PayloadPool> payloadPool_ = std::make_shared<PayloadPool>();
    std::map<int32_t, std::unique_ptr<ThreadedChunkCache>> caches_ GUARDED_BY(mutex_);
    Moreld::Tools::Mutex mutex_;
};
