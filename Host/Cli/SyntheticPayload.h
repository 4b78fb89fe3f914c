#pragma once

#include <cstdint>
#include <string>

#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// The bytes of a synthetic chunk: a pseudo-random pattern that depends only
// on the track, the chunk's time point and its size, so that whoever reads a
// chunk back can rebuild what was written and compare byte for byte.
class SyntheticPayload {
  public:
    SyntheticPayload() = delete;

    static std::string Make(int64_t trackId, Moreld::Time::TimePoint timePoint, uint64_t size);
};

}  // namespace loopstore::cli
