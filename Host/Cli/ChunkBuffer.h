#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/ThreadAnnotations.h"

namespace loopstore::cli {

// The stamped chunks between the input and the server: those not sent yet,
// and those sent but not yet known to be stored, which are sent again after
// the connection to the server broke. Bounded by bytes: when full, the oldest
// chunks go first (sent ones cost nothing; unsent ones are counted as
// dropped).
//
// Thread-safe: one thread pushes, one sends. Chunks are shared with the
// sender so that a chunk being written survives its removal here.
class ChunkBuffer {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using ChunkPtr = std::shared_ptr<const Protocol::Chunk>;

    // What went into no stream because the buffer was full.
    struct Dropped {
        uint64_t chunks = 0;
        uint64_t bytes = 0;
        TimePoint from;  // start of the first dropped chunk
        TimePoint to;    // end of the last one
    };

    explicit ChunkBuffer(uint64_t maxBytes);

    // Adds a chunk after the others. False (the chunk is not kept) once the
    // sender has failed for good.
    bool Push(Protocol::Chunk chunk);
    // No more chunks will come. The sender keeps sending until `drainBy`.
    void Close(std::chrono::steady_clock::time_point drainBy);
    // The sender gave up: pushes are refused from now on.
    void Fail();

    // Waits for the oldest unsent chunk; null when the buffer is closed and
    // every chunk was sent, or the drain time is over.
    ChunkPtr NextToSend();
    // Waits as NextToSend, then gives the oldest unsent chunk and those after
    // it while they add up to at most `maxBytes` of payload (the first comes
    // whatever its size). Empty where NextToSend gives null.
    std::vector<ChunkPtr> NextBatchToSend(uint64_t maxBytes);
    // `chunk`, returned by NextToSend, went into the current stream; the
    // chunks of a batch are marked one by one, in order.
    void MarkSent(const ChunkPtr& chunk);
    // The server stores everything before `storedEnd`: forgets those chunks.
    // With `resend`, every chunk left counts as unsent again (a new stream).
    void Confirm(TimePoint storedEnd, bool resend);
    // Forgets the chunks sent on a stream the server closed cleanly: stored.
    void ConfirmAllSent();
    // Waits up to `delay`, less when the buffer is closed and due to drain.
    // False when the drain time is over.
    bool Wait(std::chrono::milliseconds delay);

    // Chunks counted as stored (forgotten by the two Confirm calls).
    uint64_t Confirmed() const;
    uint64_t Unsent() const;
    // Takes what was dropped since the last call.
    Dropped TakeDropped();
    Dropped TotalDropped() const;

  private:
    bool DrainOver() const REQUIRES(mutex_);
    void DropOldest() REQUIRES(mutex_);

    const uint64_t maxBytes_;
    mutable Moreld::Tools::Mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<ChunkPtr> chunks_ GUARDED_BY(mutex_);
    // The first sent_ chunks went into the current stream.
    size_t sent_ GUARDED_BY(mutex_) = 0;
    uint64_t bytes_ GUARDED_BY(mutex_) = 0;
    uint64_t confirmed_ GUARDED_BY(mutex_) = 0;
    Dropped recent_ GUARDED_BY(mutex_);
    Dropped total_ GUARDED_BY(mutex_);
    std::optional<std::chrono::steady_clock::time_point> drainBy_ GUARDED_BY(mutex_);
    bool failed_ GUARDED_BY(mutex_) = false;
};

}  // namespace loopstore::cli
