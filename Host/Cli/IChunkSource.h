#pragma once

#include <cstdint>
#include <string>

#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// One piece of a stream to record: its bytes and how much time it covers.
struct SourceChunk {
    std::string payload;
    Moreld::Time::TimePoint duration;
};

// A stream cut into chunks (a file, standard input, a synthetic generator).
// The recorder owns the source and calls it from one thread.
class IChunkSource {
  public:
    virtual ~IChunkSource() = default;

    // Fills `out` with the next chunk, which the recorder will store at
    // `start`; false at the end of the stream. Throws CliError on a read
    // error.
    virtual bool Next(Moreld::Time::TimePoint start, SourceChunk& out) = 0;
    // Bytes of the input that went into no chunk (not part of the format).
    virtual uint64_t DroppedBytes() const { return 0; }
};

}  // namespace loopstore::cli
