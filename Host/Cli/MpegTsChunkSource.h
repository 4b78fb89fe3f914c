#pragma once

#include <cstdint>
#include <istream>
#include <string>

#include "Host/Cli/IChunkSource.h"
#include "Host/Cli/MpegTsChunker.h"

namespace loopstore::cli {

// An MPEG transport stream read from `in` and cut by MpegTsChunker: whole
// packets per chunk, durations from the stream's clock.
//
// Does not own the stream, which must outlive it. `head` holds bytes already
// read from the stream and comes first.
class MpegTsChunkSource : public IChunkSource {
  public:
    MpegTsChunkSource(std::istream& in, std::string head, uint64_t chunkSize,
                      Moreld::Time::TimePoint chunkDuration);

    bool Next(Moreld::Time::TimePoint start, SourceChunk& out) override;
    // Bytes that were not on a packet boundary, and a trailing partial packet.
    uint64_t DroppedBytes() const override { return chunker_.SkippedBytes(); }

  private:
    std::istream& in_;
    MpegTsChunker chunker_;
    bool finished_ = false;
};

}  // namespace loopstore::cli
