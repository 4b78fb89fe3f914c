#pragma once

#include <chrono>

namespace loopstore::cli {

// Capped exponential delays between attempts to reach something that went
// away: first, 2 x first, 4 x first, ... up to `cap`; Reset() after a success.
// Not thread-safe.
class Backoff {
  public:
    using Delay = std::chrono::milliseconds;

    Backoff(Delay first, Delay cap) : first_(first), cap_(cap), next_(first) {}

    // The delay before the next attempt.
    Delay Next() {
        const Delay delay = next_;
        next_ = std::min(cap_, next_ * 2);
        return delay;
    }
    void Reset() { next_ = first_; }

  private:
    const Delay first_;
    const Delay cap_;
    Delay next_;
};

}  // namespace loopstore::cli
