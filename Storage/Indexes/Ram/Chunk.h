#pragma once

#include <iosfwd>
#include <string>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/ChunkLocation.h"

namespace FileSystem {

// The index record of one stored chunk: it covers [timepoint, timepoint +
// duration) and its bytes lie at `location`. A plain record with public
// fields; a track index holds up to millions of them, so it stays at 104
// bytes with no padding (do not add fields). No thread-safety of its own.
struct Chunk {
    using TimePoint = Moreld::Time::TimePoint;

    // Time values TimePoint(), default location, counters 0.
    Chunk() = default;
    Chunk(const TimePoint& timepoint, const TimePoint& duration,
          const TimePoint& accumulatedDuration, const ChunkLocation& location);
    // accumulatedDuration 0 ns.
    Chunk(const TimePoint& timepoint, const TimePoint& duration, const ChunkLocation& location);

    // Every field but sequenceNumber, which the track database does not store:
    // a chunk read back from it equals the one in RAM.
    bool operator==(const Chunk& other) const;
    bool operator!=(const Chunk& other) const { return !(*this == other); }

    // "<timepoint ns>_<duration ns>_<accumulated ns>_<location.ToString()>".
    std::string ToString() const;

    TimePoint timepoint;
    TimePoint duration;
    // Sum of the durations of the track's chunks placed before this one since
    // the index was (re)built; set by the index.
    TimePoint accumulatedDuration;
    ChunkLocation location;
    // Number of the track's chunks placed before this one; set by the index.
    unsigned long sequenceNumber = 0;
};

// A readable form for log lines and exception texts.
std::ostream& operator<<(std::ostream& os, const Chunk& chunk);

}  // namespace FileSystem
