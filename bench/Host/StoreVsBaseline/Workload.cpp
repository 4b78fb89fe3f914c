#include "bench/Host/StoreVsBaseline/Workload.h"

#include <algorithm>
#include <cmath>

namespace loopstore::bench {

namespace {

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kPage = 4096;
constexpr int64_t kMillisecond = 1'000'000;

uint64_t MinFileSize(uint64_t chunkBytes) {
    const uint64_t bytes = Workload::kMinChunksPerFile * (chunkBytes + Workload::kRecordOverhead);
    return (bytes + kPage - 1) / kPage * kPage;
}

}  // namespace

Workload Workload::A() {
    return Workload{"A", 16, 64 * 1024, 40 * kMillisecond, 64 * kMiB, 2048 * kMiB};
}

Workload Workload::B() {
    return Workload{"B", 100, 20'000, 40 * kMillisecond, 64 * kMiB, 16384 * kMiB};
}

Workload Workload::Scaled(double factor) const {
    Workload scaled = *this;
    const uint64_t minTrack = MinFileSize(chunkBytes) * kFilesPerTrack;
    scaled.trackBytes =
        std::max(minTrack, static_cast<uint64_t>(std::llround(trackBytes * factor)));
    // Keep the number of wraps when the track had to stay larger.
    const double wraps = Wraps();
    scaled.totalBytes =
        std::max<uint64_t>(static_cast<uint64_t>(std::llround(wraps * scaled.trackBytes * tracks)),
                           static_cast<uint64_t>(tracks) * chunkBytes);
    return scaled;
}

uint64_t Workload::FileSize() const {
    return std::max(trackBytes / kFilesPerTrack / kPage * kPage, MinFileSize(chunkBytes));
}

double Workload::Wraps() const {
    return static_cast<double>(totalBytes) / (static_cast<double>(trackBytes) * tracks);
}

}  // namespace loopstore::bench
