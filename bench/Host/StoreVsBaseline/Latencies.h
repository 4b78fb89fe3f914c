#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace loopstore::bench {

// Durations of single operations, in nanoseconds, and their percentiles.
// Not synchronised.
class Latencies {
  public:
    void Reserve(size_t count) { samples_.reserve(count); }
    void Add(int64_t nanoseconds) { samples_.push_back(nanoseconds); }
    size_t Count() const { return samples_.size(); }

    // The nearest-rank percentile: the smallest sample that at least
    // `percent` % of the samples do not exceed. 0 when empty; `percent` is
    // clamped to [0, 100].
    int64_t Percentile(double percent) const;

  private:
    std::vector<int64_t> samples_;
};

}  // namespace loopstore::bench
