#pragma once

#include <string>

#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// Reads the time values of the command line.
//
// Instants: an ISO-8601 instant ("2026-11-21T04:33:00Z", fractions and
// offsets as TimePoint::FromString takes them), "now", a duration relative to
// now ("-10m", "+30s"), or raw nanoseconds since the epoch ("123ns").
// Durations: one or more <number><unit> terms, units ns, us, ms, s, m, h, d, w;
// the number may have a decimal fraction ("1.5s", "1m30s", "40ms").
//
// Every value must fit a TimePoint (64-bit nanoseconds: instants from 1677 to
// 2262, durations up to about 292 years), relative instants included.
//
// Stateless; every function is thread-safe. Errors throw CliError naming the
// text that could not be read.
class TimeParser {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    TimeParser() = delete;

    // `now` is the instant that "now" and relative forms refer to.
    static TimePoint ParseInstant(const std::string& text, TimePoint now);
    // A strictly positive duration.
    static TimePoint ParseDuration(const std::string& text);
    // A duration of any sign, with an optional leading '+' or '-'.
    static TimePoint ParseSignedDuration(const std::string& text);

    // A time range [from, to) of the command line (--from, --to): `to` must
    // come after `from`, and the range's length must fit a TimePoint too.
    struct Range {
        TimePoint from;
        TimePoint to;
    };
    static Range ParseRange(const std::string& from, const std::string& to, TimePoint now);

  private:
    // Nanoseconds of `text` (terms only, no sign); throws on anything else.
    static long double ParseTerms(const std::string& text, const std::string& whole);
    static long double UnitNanoseconds(const std::string& unit, const std::string& whole);
    static TimePoint ToTimePoint(long double ns, const std::string& whole);
    // now + offset, refused when it leaves the TimePoint range.
    static TimePoint Shift(TimePoint now, TimePoint offset, const std::string& whole);
};

}  // namespace loopstore::cli
