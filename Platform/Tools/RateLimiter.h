#pragma once

#include <cstdint>
#include <functional>

#include "Platform/Tools/Mutex.h"

namespace Moreld::Tools {

// Lets through at most one event per interval and counts the events it held
// back, so that a slow path that repeats writes one log line per interval
// telling how many more there were.
//
// The clock is a seam: by default the steady clock, in microseconds; tests
// pass their own.
//
// Thread-safe: one mutex, held only for the decision.
class RateLimiter {
  public:
    using Clock = std::function<int64_t()>;  // microseconds, never decreasing

    explicit RateLimiter(int64_t intervalMicros = 1000000, Clock clock = SteadyMicros);

    // True when an event may be reported now: the first one, or the first
    // one an interval or more after the last one let through. `suppressed`
    // is then the number of events held back since that one (0 otherwise).
    bool Allow(uint64_t& suppressed);

    static int64_t SteadyMicros();

  private:
    const int64_t intervalMicros_;
    const Clock clock_;
    Mutex mutex_;
    bool started_ GUARDED_BY(mutex_) = false;
    int64_t lastAllowed_ GUARDED_BY(mutex_) = 0;
    uint64_t suppressed_ GUARDED_BY(mutex_) = 0;
};

}  // namespace Moreld::Tools
