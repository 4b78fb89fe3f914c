#include "bench/Host/StoreVsBaseline/Latencies.h"

#include <algorithm>
#include <cmath>

namespace loopstore::bench {

int64_t Latencies::Percentile(double percent) const {
    if (samples_.empty())
        return 0;
    const double clamped = std::clamp(percent, 0.0, 100.0);
    const size_t n = samples_.size();
    // Rank in 1..n: ceil(p/100 * n), at least 1.
    size_t rank = static_cast<size_t>(std::ceil(clamped * static_cast<double>(n) / 100.0));
    rank = std::clamp<size_t>(rank, 1, n);
    std::vector<int64_t> sorted = samples_;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<long>(rank - 1), sorted.end());
    return sorted[rank - 1];
}

}  // namespace loopstore::bench
