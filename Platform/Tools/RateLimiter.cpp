#include "Platform/Tools/RateLimiter.h"

#include <chrono>
#include <utility>

#include "Platform/Tools/MutexLock.h"

namespace Moreld::Tools {

RateLimiter::RateLimiter(int64_t intervalMicros, Clock clock)
    : intervalMicros_(intervalMicros), clock_(std::move(clock)) {}

bool RateLimiter::Allow(uint64_t& suppressed) {
    const int64_t now = clock_();
    MutexLock lock(mutex_);
    if (started_ && now - lastAllowed_ < intervalMicros_) {
        ++suppressed_;
        suppressed = 0;
        return false;
    }
    started_ = true;
    lastAllowed_ = now;
    suppressed = suppressed_;
    suppressed_ = 0;
    return true;
}

int64_t RateLimiter::SteadyMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace Moreld::Tools
