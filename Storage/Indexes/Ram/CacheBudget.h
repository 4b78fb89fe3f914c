#pragma once

#include <condition_variable>
#include <cstdint>
#include <limits>
#include <map>
#include <utility>

#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/Mutex.h"

// The memory that the chunk caches of every track share. Each cache charges
// a chunk's bytes here before it keeps the chunk, and gives them back when the
// chunk leaves. Once the limit is reached, written (handled) chunks are
// dropped oldest first, in the order they were written, whatever their track;
// chunks not yet written are never dropped: an insertion then waits until a
// chunk of any track is written or leaves.
//
// A limit of 0 means no limit: the budget only counts, and nothing is ever
// dropped or waited for on its account.
//
// Ownership: the caches (Members) register themselves and must stay alive,
// and registered, for as long as any thread may call Reclaim; in practice
// every cache lives as long as the ChunkCacheManager that owns the budget.
//
// Thread safety: every method is safe from any thread. Lock order: a cache
// may call Charge, Release and MarkHandled while holding its own lock; the
// budget's mutex is taken last and the budget never calls a Member while it
// holds it. Reclaim and AwaitRoom must be called with no cache lock held.
class CacheBudget {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // A cache that can give back one of its handled chunks on request.
    class Member {
      public:
        virtual ~Member() = default;
        // Drops the chunk at `t` if it is still cached and handled, and
        // says whether it did; its bytes come back through Release. Takes
        // the member's own lock.
        virtual bool DropHandled(TimePoint t) = 0;
    };

    // What the budget holds, for reports.
    struct Usage {
        uint64_t bytesInUse = 0;
        uint64_t peakBytesInUse = 0;
        uint64_t limit = 0;
        uint64_t chunksDropped = 0;
    };

    CacheBudget() = default;
    CacheBudget(const CacheBudget&) = delete;
    CacheBudget& operator=(const CacheBudget&) = delete;

    // 0: no limit. Wakes waiting insertions (a larger limit may make room).
    void SetLimit(uint64_t bytes);
    uint64_t GetLimit() const;
    Usage GetUsage() const;

    // Takes `size` bytes when they fit under the limit; false, taking
    // nothing, otherwise.
    bool TryCharge(uint64_t size);
    // Gives back `size` bytes of the chunk at `t` of `member`, which has
    // left its cache; forgets it as a candidate for dropping.
    void Release(const Member* member, TimePoint t, uint64_t size);
    // Gives back `size` bytes of chunks forgotten with Forget.
    void Return(uint64_t size);
    // The chunk at `t` of `member` is written: it may now be dropped, after
    // every chunk marked before it. A second mark keeps the first place.
    void MarkHandled(Member* member, TimePoint t);
    // Forgets every chunk of `member` as a candidate for dropping.
    void Forget(const Member* member);

    // Drops the oldest handled chunks, of any member, until `size` more bytes
    // fit or no handled chunk is left. Returns whether they fit.
    bool Reclaim(uint64_t size);
    // Blocks until `size` more bytes fit or some chunk is handled, so that a
    // Reclaim can make room.
    void AwaitRoom(uint64_t size);

  private:
    struct Candidate {
        Member* member;
        TimePoint t;
    };
    bool Fits(uint64_t size) const REQUIRES(mutex_) {
        return limit_ == 0 || used_ + size <= limit_;
    }
    // Takes the oldest candidate out; false when there is none.
    bool TakeOldest(Candidate& oldest) REQUIRES(mutex_);

    // Taken after any cache lock, never before one.
    mutable Moreld::Tools::Mutex mutex_;
    std::condition_variable_any changed_;  // room made or a chunk handled
    uint64_t limit_ GUARDED_BY(mutex_) = 0;
    uint64_t used_ GUARDED_BY(mutex_) = 0;
    uint64_t peak_ GUARDED_BY(mutex_) = 0;
    uint64_t dropped_ GUARDED_BY(mutex_) = 0;
    uint64_t nextOrder_ GUARDED_BY(mutex_) = 0;
    // Handled chunks by the order they were handled in, and the way back
    // from a chunk to its place there.
    std::map<uint64_t, Candidate> candidates_ GUARDED_BY(mutex_);
    std::map<std::pair<const Member*, TimePoint>, uint64_t> order_ GUARDED_BY(mutex_);
};
