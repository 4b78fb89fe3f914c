#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/Contender.h"
#include "bench/Host/StoreVsBaseline/Figures.h"
#include "bench/Host/StoreVsBaseline/Latencies.h"
#include "bench/Host/StoreVsBaseline/LookupPlan.h"
#include "bench/Host/StoreVsBaseline/ProcessProbe.h"
#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// Runs every phase of one workload on one contender and measures it:
// prepare (untimed), ingest on one thread per track, sync to the device,
// lookups after dropping the files from the page cache and again warm,
// scans of every track cold and warm, close.
//
// Uses the contender only from the calling thread and the ingest threads it
// starts. Failures of the contender propagate (the contender is closed).
class ContenderRun {
  public:
    // `ingestOnly`: stop after ingest (for profiling it alone).
    ContenderRun(const Workload& workload, const LookupPlan& plan, const ProcessProbe& probe,
                 bool ingestOnly = false);

    Figures Run(Contender& contender);

  private:
    void Ingest(Contender& contender, Figures& figures);
    // Seconds from the start of the first track to the end of the last.
    double RunIngestThreads(Contender& contender);
    // A reader and the chunk files of every track.
    struct Readers {
        std::vector<std::unique_ptr<TrackReading>> readers;
        std::vector<std::vector<std::string>> files;
    };

    void Lookups(Contender& contender, Figures& figures);
    // Every lookup of the plan, each after dropping its track's files from
    // the page cache when `cold`; returns the misses.
    uint64_t LookupPass(Readers& readers, bool cold, Latencies& latencies);
    void Scans(Contender& contender, Figures& figures);
    // Bytes read walking every track from its first chunk; seconds in
    // `seconds`.
    uint64_t ScanAll(Contender& contender, double& seconds);

    const Workload& workload_;
    const LookupPlan& plan_;
    const ProcessProbe& probe_;
    const bool ingestOnly_;
};

}  // namespace loopstore::bench
