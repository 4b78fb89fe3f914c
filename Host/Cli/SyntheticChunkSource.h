#pragma once

#include <cstdint>

#include "Host/Cli/IChunkSource.h"

namespace loopstore::cli {

// A generated stream: `totalDuration` of chunks of `chunkDuration`, each
// sized for `bitRate` bits per second (at least one byte), with the bytes of
// SyntheticPayload for the chunk's time point.
class SyntheticChunkSource : public IChunkSource {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    SyntheticChunkSource(int64_t trackId, uint64_t bitRate, TimePoint chunkDuration,
                         TimePoint totalDuration);

    bool Next(TimePoint start, SourceChunk& out) override;

    // Bytes of each chunk for `bitRate` and `chunkDuration`.
    static uint64_t ChunkSize(uint64_t bitRate, TimePoint chunkDuration);

  private:
    const int64_t trackId_;
    const uint64_t chunkSize_;
    const TimePoint chunkDuration_;
    TimePoint remaining_;
};

}  // namespace loopstore::cli
