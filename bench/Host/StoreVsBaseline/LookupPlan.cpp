#include "bench/Host/StoreVsBaseline/LookupPlan.h"

#include <algorithm>
#include <random>

#include "bench/Host/StoreVsBaseline/ChunkStream.h"

namespace loopstore::bench {

int64_t LookupPlan::FirstHeldIndex(const Workload& workload) {
    const int64_t chunksPerFile = static_cast<int64_t>(
        workload.FileSize() / (workload.chunkBytes + Workload::kRecordOverhead));
    const int64_t held = chunksPerFile * static_cast<int64_t>(Workload::kFilesPerTrack - 2);
    return std::max<int64_t>(0, static_cast<int64_t>(workload.ChunksPerTrack()) - held);
}

LookupPlan LookupPlan::For(const Workload& workload, uint64_t count) {
    LookupPlan plan;
    const int64_t first = FirstHeldIndex(workload);
    const int64_t last = static_cast<int64_t>(workload.ChunksPerTrack()) - 1;
    if (last < first)
        return plan;
    std::mt19937_64 random(14);
    std::uniform_int_distribution<int> track(0, workload.tracks - 1);
    std::uniform_int_distribution<int64_t> index(first, last);
    std::uniform_int_distribution<int64_t> offset(0, workload.chunkDurationNs - 1);
    plan.lookups.reserve(count);
    for (uint64_t i = 0; i < count; ++i) {
        Lookup lookup;
        lookup.track = track(random);
        lookup.index = index(random);
        lookup.timePoint =
            ChunkStream::kStart + lookup.index * workload.chunkDurationNs + offset(random);
        plan.lookups.push_back(lookup);
    }
    return plan;
}

}  // namespace loopstore::bench
