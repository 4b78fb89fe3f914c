#pragma once

#include <map>
#include <optional>
#include <utility>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/Block.h"

// Searches over a track's blocks, keyed by their first chunk's time: the
// chunk that holds an instant, the next and previous chunks, the ends of the
// track, and checks of the order of the blocks. Every block is searched,
// protected ones included; blocks left empty by a failed append are skipped.
//
// A view over the map the track index owns: it keeps a reference and no
// state, and is valid while the map is. No thread-safety of its own: the
// caller holds the index lock (shared is enough) for the view's lifetime.
class BlockNavigation {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Blocks = std::map<TimePoint, FileSystem::Block>;
    using Found = std::optional<FileSystem::Chunk>;

    explicit BlockNavigation(const Blocks& blocks) : blocks_(blocks) {}

    // The block with the greatest key not after `tp`, or end().
    Blocks::const_iterator AtOrBefore(const TimePoint& tp) const;
    // The chunk whose span holds `tp`.
    Found Lookup(const TimePoint& tp) const;
    // The first chunk that starts strictly after `tp`.
    Found Next(const TimePoint& tp) const;
    // The last chunk that ends at or before `tp`, or the last chunk of the
    // track when `tp` is at or after its end.
    Found Previous(const TimePoint& tp) const;
    // The first chunk of the first block, the last chunk of the last block;
    // nothing when that block is missing or empty.
    Found First() const;
    Found Last() const;
    // Whether `chunk` is still indexed at its own location.
    bool Holds(const FileSystem::Chunk& chunk) const;
    // Whether a block holds chunks of `file`.
    bool HoldsFile(const ChunkFile& file) const;
    // The first pair of neighbours where a block starts before the previous
    // one ends: (its tcIn, the previous tcOut).
    std::optional<std::pair<TimePoint, TimePoint>> FirstOverlap() const;
    // 8 bytes per block plus each block's own estimate.
    unsigned long SizeOnRam() const;

  private:
    // The first chunk of the first non-empty block from `it` on.
    Found FirstFrom(Blocks::const_iterator it) const;
    // The last chunk of the last non-empty block before `it`.
    Found LastBefore(Blocks::const_iterator it) const;

    const Blocks& blocks_;
};
