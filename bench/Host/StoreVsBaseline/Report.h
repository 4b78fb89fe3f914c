#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/Figures.h"
#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// Prints the benchmark's figures: per workload a table with the baseline's
// value, then each loopstore run's value and its ratio to the baseline, and
// after it one machine-readable line per figure and run:
//   RESULT workload=A figure=ingest_mbps contender=loopstore value=612.3
//          baseline=655.0 ratio=0.935
// Stateless; writes to `out`.
class Report {
  public:
    explicit Report(std::FILE* out) : out_(out) {}

    // `figures` starts with the baseline's.
    void Workload(const bench::Workload& workload, unsigned long cacheMemoryBytes,
                  const std::vector<Figures>& figures) const;
    // The gRPC ingest beside the in-process one of the same workload: speed
    // and peak RSS.
    void Grpc(const bench::Workload& workload, double grpcMBps, uint64_t peakRssBytes,
              const Figures& inProcess) const;

  private:
    void Header(const bench::Workload& workload, unsigned long cacheMemoryBytes,
                bool withDefaults) const;

    std::FILE* out_;
};

}  // namespace loopstore::bench
