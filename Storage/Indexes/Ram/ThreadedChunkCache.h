#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <atomic>
#include <memory>
#include <set>
#include <thread>

#include "Platform/Logging/Logger.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/Semaphore.h"
#include "Platform/Tools/SharedMutex.h"
#include "Platform/Tools/WriterLock.h"
#include "Storage/Indexes/Ram/CacheBudget.h"
#include "Storage/Indexes/Ram/ChunkCache.h"
#include "Storage/Indexes/Ram/IChunkFlusher.h"
#include "Storage/Indexes/Ram/PayloadPool.h"

// One track's ChunkCache made usable from several threads, with the flusher
// thread that hands every inserted chunk, in time order, to an IChunkFlusher
// (the track's writer). The flusher writes the chunk and reports it handled,
// which makes it evictable. An insertion blocks while the cache is full of
// unhandled chunks: this is how a slow disk pushes back on the writer.
//
// With a CacheBudget shared by every track's cache, an insertion first has
// the budget drop the oldest written chunks of any track, and waits, with no
// lock of this cache held, while the budget is full of unwritten chunks.
//
// Ownership: ChunkCacheManager owns one per track. The flusher is not owned
// and must outlive the flusher thread (until Stop returns).
//
// Thread safety: any number of reader threads (GetChunk, GetNextChunk,
// GetPreviousChunk: shared lock), one inserting thread (Insert) and the flusher
// thread, whose flusher calls HandleChunk; Insert, HandleChunk and Clear take
// the lock exclusively, and so do the limit setters (GetCacheSize shares it).
// Run and Stop are for one controlling thread. The budget may call
// DropHandled from any thread. Lock order: this cache's lock, then the
// budget's; another cache's lock is never taken while holding this one.
class ThreadedChunkCache : public CacheBudget::Member {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using DataChunkPtr = ChunkCache::DataChunkPtr;

    // A byte bound of 104857600 (100 MiB); no flusher, thread not started.
    ThreadedChunkCache();
    // Stops (drains) the flusher thread.
    virtual ~ThreadedChunkCache();
    ThreadedChunkCache(const ThreadedChunkCache&) = delete;
    ThreadedChunkCache& operator=(const ThreadedChunkCache&) = delete;

    // Not owned; null means chunks are taken out of pending and dropped.
    void SetChunkFlusher(IChunkFlusher* flusher);
    // Only used in log lines.
    void SetTrackId(long trackId);
    // Change the bound (ChunkCache), then wake one blocked insertion.
    void SetCacheSizeInBytes(unsigned long maxBytes);
    void SetCacheSizeInChunks(unsigned long maxChunks);
    unsigned long GetCacheSize() const;
    // Shares `budget` (not owned, outlives the cache) with the other caches.
    // Call once, before the first insertion.
    void SetBudget(CacheBudget* budget);
    // `bytes`, or the budget's limit when that is smaller: a bound no single
    // cache needs to exceed.
    unsigned long BoundWithinBudget(unsigned long bytes) const;
    // Shares `pool` with the other caches. Call before the first MakeChunk.
    void SetPayloadPool(std::shared_ptr<PayloadPool> pool);
    // An empty chunk for the writer to fill: its payload buffer comes from
    // the pool and returns there when the chunk dies; a plain chunk when no
    // pool is set.
    DataChunkPtr MakeChunk() const;

    // Starts the flusher thread, first stopping a previous one.
    void Run();
    // Asks the flusher thread to stop and joins it; every chunk inserted
    // before the call is handed to the flusher first. Does nothing when not
    // running. Does not wake a blocked Insert.
    void Stop();

    // Inserts `chunk` (non-null) starting at `t`, `size` bytes, and queues it
    // for the flusher. Blocks, without time-out, while no room can be made,
    // in this cache or in the budget; returns true when it had to wait,
    // false when it got in at once. Must be called with no other cache's
    // lock held (the budget may drop chunks of any cache). The
    // exceptions of ChunkCache::InsertAndRemoveHandledChunks pass through with
    // nothing inserted or queued.
    bool Insert(DataChunkPtr chunk, TimePoint t, unsigned long size);
    // Marks the chunk at `t` handled, or removes it. Wakes a blocked
    // insertion once an eighth of the cached chunks has been handled since it
    // began to wait, or at once when no chunk is queued for the flusher.
    void HandleChunk(TimePoint t, bool remove);
    // Drops every chunk and every queued time point. Does not wake a blocked
    // Insert.
    void Clear();

    DataChunkPtr GetChunk(TimePoint t) const;
    DataChunkPtr GetNextChunk(TimePoint t) const;
    DataChunkPtr GetPreviousChunk(TimePoint t) const;

    // The budget's request: drop the chunk at `t` if it is written.
    bool DropHandled(TimePoint t) override;

  private:
    // Waits, holding `lock` (released while waiting), until a chunk of this
    // cache is handled or the bound changes.
    void AwaitHandled(Moreld::Tools::WriterLock<boost::shared_mutex>& lock, TimePoint t)
        REQUIRES(cacheMutex_);
    // Waits, with no lock held, until the budget can make room.
    void AwaitBudget(TimePoint t, unsigned long size);
    // The flusher thread's body.
    void Flush();
    // Takes the oldest queued chunk out of pending. False when nothing is
    // queued (the pass woken by Stop or left over from Clear).
    bool TakeOldestPending(DataChunkPtr& chunk);
    // Counts one handled chunk for a blocked insertion; true when it is worth
    // waking it.
    bool ShouldWakeInserter() REQUIRES(cacheMutex_);

    ChunkCache cache_ GUARDED_BY(cacheMutex_);
    std::atomic<IChunkFlusher*> flusher_{nullptr};
    CacheBudget* budget_ = nullptr;             // not owned; set before the first insertion
    std::shared_ptr<PayloadPool> payloadPool_;  // set before the first MakeChunk
    // Taken before the budget's mutex, never after it.
    mutable Moreld::Tools::BasicSharedMutex<boost::shared_mutex> cacheMutex_;
    std::set<TimePoint> pending_ GUARDED_BY(cacheMutex_);
    // Waited on, with cacheMutex_ held exclusively, by an insertion that found
    // no room.
    boost::condition_variable_any spaceAvailable_;
    bool inserterWaiting_ GUARDED_BY(cacheMutex_) = false;
    unsigned long handledWhileWaiting_ GUARDED_BY(cacheMutex_) = 0;
    // One signal per queued chunk plus one per Stop.
    Moreld::Tools::Semaphore work_{0};
    std::unique_ptr<std::thread> thread_;  // touched by Run and Stop only
    // Written by the controlling thread, read by the flusher thread.
    std::atomic<bool> stopped_{true};
    std::atomic<long> trackId_{0};
    tav::mr::logging::Logger logger_;
};
