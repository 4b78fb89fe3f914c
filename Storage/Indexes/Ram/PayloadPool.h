#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Plexa/DataChunk.h"
#include "Platform/Tools/Mutex.h"

// Payload buffers that go round between the host's messages and the chunk
// caches instead of back to the heap. A chunk made here returns its payload
// buffer to the pool when its last reference goes (evicted, dropped by the
// budget, cleared); the writer hands such a buffer to the host's message in
// exchange for the message's payload, so the host's next chunk is copied into
// memory that is already mapped, and freed chunks are not trimmed back to the
// kernel only to be faulted in again.
//
// Bounded: the buffers kept add up to at most the bound given at
// construction (their capacities); a buffer beyond it, or too small to be
// worth keeping, is freed as before.
//
// Ownership: shared. Every chunk made here holds the pool, so the pool
// outlives the last of them whoever holds it.
//
// Thread safety: every method is safe from any thread; one mutex, taken last
// (a chunk may die under any cache's or the budget's lock).
class PayloadPool : public std::enable_shared_from_this<PayloadPool> {
  public:
    using DataChunkPtr = std::shared_ptr<Moreld::Plexa::DataChunk>;

    // Buffers of fewer bytes are left to the heap: too small to fault much.
    static constexpr size_t kSmallestKept = 4096;
    static constexpr size_t kDefaultBoundBytes = 16 * 1024 * 1024;

    // Use through std::make_shared: chunks hold the pool by shared_from_this.
    explicit PayloadPool(size_t boundBytes = kDefaultBoundBytes);
    PayloadPool(const PayloadPool&) = delete;
    PayloadPool& operator=(const PayloadPool&) = delete;

    // An empty chunk whose payload is the most recently returned buffer
    // (empty, with its capacity) or a plain empty string when none is kept.
    // The payload comes back here when the chunk is destroyed.
    DataChunkPtr MakeChunk();

    // The most recently returned buffer, cleared; empty when none is kept.
    std::string Take();
    // Keeps `buffer`'s memory for a later Take when it fits in the bound;
    // otherwise frees it.
    void Give(std::string&& buffer);

    size_t KeptBytes() const;
    size_t KeptBuffers() const;

  private:
    const size_t boundBytes_;
    mutable Moreld::Tools::Mutex mutex_;
    std::vector<std::string> buffers_ GUARDED_BY(mutex_);  // last in, first out
    size_t keptBytes_ GUARDED_BY(mutex_) = 0;              // sum of capacities
};
