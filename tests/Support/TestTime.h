#pragma once

#include <cstdint>

#include "Platform/Time/TimePoint.h"

namespace loopstore::test {

// Nanoseconds in a second, the unit of every time point.
constexpr int64_t kSecond = 1'000'000'000;

// The time point `ns` nanoseconds after the epoch.
inline Moreld::Time::TimePoint Ns(int64_t ns) {
    return Moreld::Time::TimePoint::FromNanoseconds(ns);
}

}  // namespace loopstore::test
