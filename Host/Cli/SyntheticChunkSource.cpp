#include "Host/Cli/SyntheticChunkSource.h"

#include <algorithm>

#include "Host/Cli/SyntheticPayload.h"

namespace loopstore::cli {

SyntheticChunkSource::SyntheticChunkSource(int64_t trackId, uint64_t bitRate,
                                           TimePoint chunkDuration, TimePoint totalDuration)
    : trackId_(trackId),
      chunkSize_(ChunkSize(bitRate, chunkDuration)),
      chunkDuration_(chunkDuration),
      remaining_(totalDuration) {}

uint64_t SyntheticChunkSource::ChunkSize(uint64_t bitRate, TimePoint chunkDuration) {
    const long double bytes =
        static_cast<long double>(bitRate) * chunkDuration.ToNanoseconds() / 8e9L;
    return std::max<uint64_t>(1, static_cast<uint64_t>(bytes));
}

bool SyntheticChunkSource::Next(TimePoint start, SourceChunk& out) {
    if (remaining_ <= TimePoint())
        return false;
    out.payload = SyntheticPayload::Make(trackId_, start, chunkSize_);
    out.duration = chunkDuration_;
    remaining_ -= chunkDuration_;
    return true;
}

}  // namespace loopstore::cli
