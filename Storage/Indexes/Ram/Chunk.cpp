#include "Storage/Indexes/Ram/Chunk.h"

#include <ostream>

namespace FileSystem {

// The index's RAM budget per chunk (map node included) depends on this size.
static_assert(sizeof(Chunk) == 104, "FileSystem::Chunk grew: check the index's RAM budget");

Chunk::Chunk(const TimePoint& timepoint, const TimePoint& duration,
             const TimePoint& accumulatedDuration, const ChunkLocation& location)
    : timepoint(timepoint),
      duration(duration),
      accumulatedDuration(accumulatedDuration),
      location(location) {}

Chunk::Chunk(const TimePoint& timepoint, const TimePoint& duration, const ChunkLocation& location)
    : Chunk(timepoint, duration, TimePoint::FromNanoseconds(0), location) {}

bool Chunk::operator==(const Chunk& other) const {
    return timepoint == other.timepoint && duration == other.duration &&
           accumulatedDuration == other.accumulatedDuration && location == other.location;
}

std::string Chunk::ToString() const {
    return std::to_string(timepoint.ToNanoseconds()) + "_" +
           std::to_string(duration.ToNanoseconds()) + "_" +
           std::to_string(accumulatedDuration.ToNanoseconds()) + "_" + location.ToString();
}

std::ostream& operator<<(std::ostream& os, const Chunk& chunk) {
    return os << "chunk " << chunk.timepoint << " (" << chunk.duration.ToDurationString()
              << ", accumulated " << chunk.accumulatedDuration.ToDurationString() << ", #"
              << chunk.sequenceNumber << ") in file " << chunk.location.file << " at offset "
              << chunk.location.offset << ", " << chunk.location.size << " bytes, index "
              << chunk.location.chunkIndex;
}

}  // namespace FileSystem
