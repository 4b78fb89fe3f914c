#pragma once

#include <cstdint>
#include <istream>
#include <string>

#include "Host/Cli/IChunkSource.h"

namespace loopstore::cli {

// Any byte stream (a file, standard input) cut into chunks of `chunkSize`
// bytes (the last may be shorter), each given the nominal `chunkDuration`:
// the bytes carry no clock the cutter could follow.
//
// Does not own the stream, which must outlive it. `head` holds bytes already
// read from the stream (to detect its format) and comes first.
class StreamChunkSource : public IChunkSource {
  public:
    StreamChunkSource(std::istream& in, std::string head, uint64_t chunkSize,
                      Moreld::Time::TimePoint chunkDuration);

    bool Next(Moreld::Time::TimePoint start, SourceChunk& out) override;

  private:
    std::istream& in_;
    std::string head_;
    const uint64_t chunkSize_;
    const Moreld::Time::TimePoint chunkDuration_;
};

}  // namespace loopstore::cli
