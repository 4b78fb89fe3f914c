#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// The command line of the benchmark. A plain value.
struct Options {
    // The run's files go to a directory of their own made under it (removed
    // at the end); empty: next to the program, in the build tree.
    std::string directory;
    double scale = 1.0;
    uint64_t bytes = 0;  // written per workload; 0: the full size times scale
    std::string workloads = "AB";
    unsigned long cacheMemoryBytes = 256ul * 1024 * 1024;
    // The gRPC server's receive window per stream; 0: gRPC grows it.
    int grpcWindowBytes = 1 << 20;
    bool compareDefaults = false;
    uint64_t lookups = 2000;
    bool grpc = true;
    // Profiling one side: "baseline", "loopstore" or both ("all"); without
    // the baseline the first column is loopstore's and there are no ratios.
    std::string contenders = "all";
    // Stop after ingest: no lookups, no scans.
    bool ingestOnly = false;

    // Parses argv; prints the help and exits 0 on --help, prints the error
    // and exits non-zero on a bad option.
    static Options Parse(int argc, char** argv);

    // The selected workloads, at the size asked for.
    std::vector<Workload> SelectedWorkloads() const;
};

}  // namespace loopstore::bench
