#pragma once

#include <cstdint>
#include <vector>

#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// The random lookups every contender makes, the same for all: a track and a
// time point inside one chunk, drawn from the newest chunks that any
// contender still holds once the workload is written (the files a ring
// recycles last).
struct LookupPlan {
    struct Lookup {
        int track = 0;
        int64_t timePoint = 0;
        int64_t index = 0;  // of the chunk holding the time point
    };

    // `count` lookups drawn with a fixed seed.
    static LookupPlan For(const Workload& workload, uint64_t count);

    // The first chunk index lookups may name: all chunks from it on are still
    // held by a ring of kFilesPerTrack files, two of them spare.
    static int64_t FirstHeldIndex(const Workload& workload);

    std::vector<Lookup> lookups;
};

}  // namespace loopstore::bench
