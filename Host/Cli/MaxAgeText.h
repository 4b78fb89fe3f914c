#pragma once

#include <string>

#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// The command line's form of a track's maximum age: a duration as
// TimeParser reads it ("72h", "30d", "1h30m"), or "0" / "off" for no limit
// (0 ns). Stateless and thread-safe; a bad text throws CliError naming it.
class MaxAgeText {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    MaxAgeText() = delete;

    static TimePoint Parse(const std::string& text);
    // In days, hours, minutes and seconds, as Parse reads it back ("3d",
    // "1d12h", "1m30s", "1.5s"); "off" for 0 ns.
    static std::string Format(TimePoint maxAge);
};

}  // namespace loopstore::cli
