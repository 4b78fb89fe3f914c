#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>

#include "Platform/Logging/Logger.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/CacheBudget.h"

// The RAM store of one track's most recent chunks, bounded in bytes or in
// number of chunks. A chunk stays unhandled from its insertion until it has
// been written out (HandleChunk); only handled chunks are evicted, oldest
// first, and only when a new chunk needs their room. When unhandled chunks
// fill the cache an insertion fails and the caller waits.
//
// Chunks are shared, not copied: the cache keeps one reference per chunk and
// hands out more.
//
// With a CacheBudget, every cached byte is also charged to it: an insertion
// fails when the budget refuses the bytes, handled chunks are offered to it
// for dropping, and every chunk that leaves gives its bytes back.
//
// Thread safety: none. ThreadedChunkCache owns the only instance per track and
// serialises every call under its own lock.
class ChunkCache {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using DataChunkPtr = std::shared_ptr<Moreld::Plexa::DataChunk>;

    // The unit of the maximum and current sizes. With None nothing fits.
    enum class SizeMode : int32_t { None = 0, Bytes = 1, Chunks = 2 };

    // Maximum 0, mode None: refuses every chunk until a limit is set.
    ChunkCache();
    // Gives every cached byte back to the budget, if any.
    virtual ~ChunkCache();
    ChunkCache(const ChunkCache&) = delete;
    ChunkCache& operator=(const ChunkCache&) = delete;

    // Switch to a byte or chunk-count bound. Cached chunks are kept even when
    // they exceed the new bound; the current size is recomputed in the new
    // unit.
    void SetCacheSizeInBytes(unsigned long maxBytes);
    void SetCacheSizeInChunks(unsigned long maxChunks);

    unsigned long GetMaximumSize() const { return maximumSize_; }
    unsigned long GetCurrentSize() const { return currentSize_; }
    // Number of cached chunks, whatever the mode.
    unsigned long GetChunkCount() const { return chunks_.size(); }
    // current * 100 / maximum, truncated; 100 for a zero maximum. Above 100
    // when the bound was lowered below the content.
    unsigned long GetFillPercentage() const;
    // Whether a chunk of `size` bytes fits without eviction. In Chunks mode
    // the size is ignored: the question is whether one more chunk fits.
    bool SpaceForChunks(unsigned long size) const;

    // Lookups; each returns an empty pointer when there is no such chunk.
    // The chunk whose span [start, start + duration) contains `t`.
    DataChunkPtr GetChunk(TimePoint t) const;
    // The last chunk that ends at or before `t`.
    DataChunkPtr GetPreviousChunk(TimePoint t) const;
    // The first chunk that starts after `t` (the first chunk when `t` lies
    // before it). A chunk containing `t` is not "next".
    DataChunkPtr GetNextChunk(TimePoint t) const;

    // Inserts `chunk` (non-null, starting at `t`, `size` bytes), evicting the
    // oldest handled chunks as far as needed. Returns false, with nothing
    // inserted, when no room can be made; chunks evicted before that are gone.
    // Throws std::runtime_error, with the cache unchanged, when the chunk
    // alone exceeds a byte bound or `t` is not after the last cached chunk.
    bool InsertAndRemoveHandledChunks(DataChunkPtr chunk, TimePoint t, unsigned long size);

    // As InsertAndRemoveHandledChunks, telling why a chunk did not get in.
    enum class Insertion { kInserted, kCacheFull, kBudgetFull };
    Insertion TryInsert(DataChunkPtr chunk, TimePoint t, unsigned long size);

    // Charges the cached bytes to `budget` from now on, on behalf of
    // `member` (the owner that can drop chunks on the budget's request).
    // Both not owned, must outlive the cache. Call while the cache is empty.
    void SetBudget(CacheBudget* budget, CacheBudget::Member* member);
    // Drops the chunk at `t` when it is cached and handled; false otherwise.
    bool DropHandled(TimePoint t);

    // Marks the chunk at `t` handled (evictable), or with `remove` drops it at
    // once. Unknown time points are ignored. Removal leaves `t` in the handled
    // set: the next insertion that needs room then fails until Clear.
    void HandleChunk(TimePoint t, bool remove);

    // Drops every chunk and gives the freed memory back to the system. The
    // bound and its mode are kept. Under a budget with a limit the memory
    // goes back only when no cache of the budget holds a chunk any more.
    void Clear();
    // How many times Clear gave the heap back to the system, in this process.
    static uint64_t GetHeapTrimCount();

  private:
    // Whether Clear should hand the heap's free pages back to the system.
    bool ShouldTrimHeap() const;

    enum class Eviction { kEvicted, kNothingHandled, kSizeMissing };

    // What a chunk of `size` bytes counts for in the current mode.
    unsigned long Weight(unsigned long size) const;
    void CheckInsertion(TimePoint t, unsigned long size) const;
    // Evicts the oldest handled chunk.
    Eviction EvictOldestHandled();
    // Forgets the chunk at `t`, of `size` bytes, in every map but handled_.
    void Erase(TimePoint t, unsigned long size);
    void ReturnAllToBudget();
    void LogSize(const char* what, TimePoint t) const;

    unsigned long maximumSize_ = 0;
    unsigned long currentSize_ = 0;
    SizeMode sizeMode_ = SizeMode::None;
    // chunks_ and sizes_ have the same keys, in insertion order.
    std::map<TimePoint, DataChunkPtr> chunks_;
    std::map<TimePoint, unsigned long> sizes_;
    // Normally a subset of the keys; see HandleChunk for the exception.
    std::set<TimePoint> handled_;
    CacheBudget* budget_ = nullptr;          // not owned; null: no budget
    CacheBudget::Member* member_ = nullptr;  // not owned
    tav::mr::logging::Logger logger_;
};
