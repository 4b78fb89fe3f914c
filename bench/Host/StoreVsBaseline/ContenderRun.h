#pragma once

#include <string>

#include "bench/Host/StoreVsBaseline/Contender.h"
#include "bench/Host/StoreVsBaseline/Figures.h"
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
    ContenderRun(const Workload& workload, const LookupPlan& plan, const ProcessProbe& probe);

    Figures Run(Contender& contender);

  private:
    void Ingest(Contender& contender, Figures& figures);
    // Seconds from the start of the first track to the end of the last.
    double RunIngestThreads(Contender& contender);
    void Lookups(Contender& contender, Figures& figures);
    void Scans(Contender& contender, Figures& figures);
    // Bytes read walking every track from its first chunk; seconds in
    // `seconds`.
    uint64_t ScanAll(Contender& contender, double& seconds);

    const Workload& workload_;
    const LookupPlan& plan_;
    const ProcessProbe& probe_;
};

}  // namespace loopstore::bench
