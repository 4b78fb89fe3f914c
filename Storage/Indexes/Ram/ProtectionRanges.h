#pragma once

#include <map>
#include <vector>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/Block.h"

// The time ranges of a track's protections, by protection id, so that a
// block recorded after a protection was made is held by it as well: a
// protection holds every block that lies in its range, whenever the block
// is recorded.
//
// A block lies in a range [in, out] when it overlaps [in, out) as
// Block::IsBetween says, or when it starts exactly at `out` (the end of a
// range that is still being recorded counts).
//
// A value owned by the track index and guarded by its files lock; no
// thread-safety of its own.
class ProtectionRanges {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // Replaces any range known under `id`.
    void Add(unsigned long id, const TimePoint& in, const TimePoint& out);
    void Remove(unsigned long id);
    // The ids whose range `block` lies in, in ascending order; none for a
    // block without chunks.
    std::vector<unsigned long> Covering(const FileSystem::Block& block) const;
    bool Empty() const { return ranges_.empty(); }

  private:
    struct Range {
        TimePoint in;
        TimePoint out;
    };
    std::map<unsigned long, Range> ranges_;
};
