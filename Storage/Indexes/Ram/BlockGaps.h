#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace FileSystem {

// The places inside one block where a chunk starts later than the chunk
// before it ended: what a timeline needs to tell recorded time from pauses
// without walking every chunk. Position i means "chunk i starts after a
// pause"; positions ascend, chunk 0 is never one.
//
// A block of contiguous chunks, the common case, pays one null pointer and
// nothing per chunk; the list is allocated at the first pause. A value kept
// by Block and guarded with it; no thread-safety of its own.
class BlockGaps {
  public:
    BlockGaps() = default;
    BlockGaps(const BlockGaps& other) { *this = other; }
    BlockGaps(BlockGaps&& other) noexcept = default;
    BlockGaps& operator=(const BlockGaps& other) {
        if (this != &other)
            positions_ = other.Empty() ? nullptr : std::make_unique<Positions>(*other.positions_);
        return *this;
    }
    BlockGaps& operator=(BlockGaps&& other) noexcept = default;

    // Records that chunk `position` starts after a pause; positions come in
    // ascending order, as chunks are appended.
    void Add(uint64_t position) {
        if (!positions_)
            positions_ = std::make_unique<Positions>();
        positions_->push_back(static_cast<uint32_t>(position));
    }
    void Clear() { positions_.reset(); }
    void ShrinkToFit() {
        if (positions_)
            positions_->shrink_to_fit();
    }

    bool Empty() const { return !positions_ || positions_->empty(); }
    size_t Count() const { return positions_ ? positions_->size() : 0; }
    // The chunk index of the i-th pause, i < Count().
    uint64_t Position(size_t i) const { return (*positions_)[i]; }

  private:
    // 32 bits: a file never holds four billion chunks.
    using Positions = std::vector<uint32_t>;
    std::unique_ptr<Positions> positions_;
};

}  // namespace FileSystem
