#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

namespace Moreld::Time {

// A signed count of nanoseconds, used both for instants (since the Unix epoch,
// UTC) and for durations. A value type: copyable, comparable, 8 bytes.
// Default-constructed, it is 0 ns.
//
// Text forms, used everywhere the system prints time:
//   ToString():         ISO-8601 UTC with nanoseconds, "2026-11-21T04:33:00.123456789Z"
//   ToDurationString(): seconds with a 9-digit fraction, "-1.500000000s"
// The stream operator writes ToString().
class TimePoint {
  public:
    constexpr TimePoint() = default;

    static constexpr TimePoint FromNanoseconds(int64_t ns) { return TimePoint(ns); }
    static constexpr TimePoint FromMilliseconds(int64_t ms) { return TimePoint(ms * 1'000'000); }
    static constexpr TimePoint FromSeconds(int64_t s) { return TimePoint(s * 1'000'000'000); }
    // The current instant of the system (wall) clock.
    static TimePoint Now();

    // Parses the ToString() form; also accepts fewer fraction digits, no
    // fraction, and a "+hh:mm" / "-hh:mm" offset instead of "Z". Throws
    // std::invalid_argument with the text on anything else, including a day
    // the month does not have and an instant outside the range of 64-bit
    // nanoseconds (1677-09-21T00:12:43.145224192Z to 2262-04-11T23:47:16.854775807Z).
    static TimePoint FromString(const std::string& text);

    constexpr int64_t ToNanoseconds() const { return ns_; }

    // Sets `sum` to a + b and returns true; returns false, leaving `sum`
    // unchanged, when the sum does not fit 64 bits. For times and durations
    // that come from outside.
    static constexpr bool CheckedAdd(TimePoint a, TimePoint b, TimePoint& sum) {
        int64_t ns = 0;
        if (__builtin_add_overflow(a.ns_, b.ns_, &ns))
            return false;
        sum = TimePoint(ns);
        return true;
    }

    std::string ToString() const;
    std::string ToDurationString() const;

    friend constexpr auto operator<=>(TimePoint, TimePoint) = default;
    friend constexpr TimePoint operator+(TimePoint a, TimePoint b) {
        return TimePoint(a.ns_ + b.ns_);
    }
    friend constexpr TimePoint operator-(TimePoint a, TimePoint b) {
        return TimePoint(a.ns_ - b.ns_);
    }
    constexpr TimePoint& operator+=(TimePoint o) {
        ns_ += o.ns_;
        return *this;
    }
    constexpr TimePoint& operator-=(TimePoint o) {
        ns_ -= o.ns_;
        return *this;
    }

  private:
    constexpr explicit TimePoint(int64_t ns) : ns_(ns) {}
    int64_t ns_ = 0;
};

std::ostream& operator<<(std::ostream& os, const TimePoint& tp);

}  // namespace Moreld::Time
