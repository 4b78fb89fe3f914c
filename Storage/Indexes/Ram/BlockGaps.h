#pragma once

#include <cstdint>
#include <vector>

namespace FileSystem {

// The places inside one block where a chunk starts later than the chunk
// before it ended: what a timeline needs to tell recorded time from pauses
// without walking every chunk. Position i means "chunk i starts after a
// pause"; positions ascend, chunk 0 is never one.
//
// Empty for a block of contiguous chunks, which is the common case, so such
// a block pays one empty vector and nothing per chunk. A value kept by Block
// and guarded with it; no thread-safety of its own.
class BlockGaps {
  public:
    // Records that chunk `position` starts after a pause; positions come in
    // ascending order, as chunks are appended.
    void Add(uint64_t position) { positions_.push_back(static_cast<uint32_t>(position)); }
    void Clear() { positions_.clear(); }
    void ShrinkToFit() { positions_.shrink_to_fit(); }

    bool Empty() const { return positions_.empty(); }
    size_t Count() const { return positions_.size(); }
    // The chunk index of the i-th pause, i < Count().
    uint64_t Position(size_t i) const { return positions_[i]; }

    bool operator==(const BlockGaps& other) const { return positions_ == other.positions_; }

  private:
    // 32 bits: a file never holds four billion chunks, and half the room.
    std::vector<uint32_t> positions_;
};

}  // namespace FileSystem
