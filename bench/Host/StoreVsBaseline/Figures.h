#pragma once

#include <cstdint>
#include <string>

namespace loopstore::bench {

// What one contender measured on one workload. A plain value; times of
// single lookups in nanoseconds, sizes in bytes.
struct Figures {
    std::string contender;
    double ingestMBps = 0;      // chunk payload MB (10^6 B) per second
    double prepareSeconds = 0;  // files and tracks, outside every figure
    double ingestSeconds = 0;
    double readSeconds = 0;  // lookups and scans, setup included
    double cpuSeconds = 0;   // during ingest, every thread
    uint64_t peakRssIngest = 0;
    double writeAmpProcess = 0;  // bytes the process had written / payload
    double writeAmpDevice = 0;   // bytes the device wrote / payload (0: unknown)
    int64_t coldP50 = 0;
    int64_t coldP99 = 0;
    int64_t warmP50 = 0;
    int64_t warmP99 = 0;
    uint64_t lookups = 0;
    uint64_t lookupMisses = 0;  // not found, or another chunk than asked
    double scanColdMBps = 0;
    double scanWarmMBps = 0;
    uint64_t scannedBytes = 0;
    uint64_t peakRssReads = 0;
};

}  // namespace loopstore::bench
