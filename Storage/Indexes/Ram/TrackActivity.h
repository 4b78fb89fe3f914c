#pragma once

#include <atomic>
#include <cstdint>

// What one track's index did since it was loaded: chunks and bytes placed,
// files taken back from old content for new chunks. Cheap on the append
// path: relaxed atomic additions, no lock; readers get each counter on its
// own, not a consistent snapshot of the three.
//
// Owned by the track's index; safe from any thread.
class TrackActivity {
  public:
    void CountChunk(uint64_t bytes) {
        chunks_.fetch_add(1, std::memory_order_relaxed);
        bytes_.fetch_add(bytes, std::memory_order_relaxed);
    }
    void CountRecycledFile() { recycledFiles_.fetch_add(1, std::memory_order_relaxed); }

    uint64_t GetChunks() const { return chunks_.load(std::memory_order_relaxed); }
    uint64_t GetBytes() const { return bytes_.load(std::memory_order_relaxed); }
    uint64_t GetRecycledFiles() const { return recycledFiles_.load(std::memory_order_relaxed); }

  private:
    std::atomic<uint64_t> chunks_{0};
    std::atomic<uint64_t> bytes_{0};
    std::atomic<uint64_t> recycledFiles_{0};
};
