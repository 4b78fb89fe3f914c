#pragma once

#include <chrono>
#include <cstdint>

namespace Moreld::Tools {

// Measures elapsed time on the steady clock, so that changes of the wall
// clock do not disturb it. Starts at construction. A value type; not
// synchronised.
class StdTimer {
  public:
    StdTimer() : start_(Clock::now()) {}

    // Starts measuring again from now.
    void Restart() { start_ = Clock::now(); }

    // Whole microseconds since construction or the last Restart().
    int64_t GetEllapsedTime() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_).count();
    }

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_;
};

}  // namespace Moreld::Tools
