#include "bench/Host/StoreVsBaseline/ContenderRun.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "bench/Host/StoreVsBaseline/FileWalk.h"
#include "bench/Host/StoreVsBaseline/Latencies.h"
#include "bench/Host/StoreVsBaseline/TrackThreads.h"

namespace loopstore::bench {

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double MBps(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
}

double Ratio(uint64_t bytes, uint64_t payload) {
    return payload > 0 ? static_cast<double>(bytes) / static_cast<double>(payload) : 0;
}

}  // namespace

ContenderRun::ContenderRun(const Workload& workload, const LookupPlan& plan,
                           const ProcessProbe& probe, bool ingestOnly)
    : workload_(workload), plan_(plan), probe_(probe), ingestOnly_(ingestOnly) {}

Figures ContenderRun::Run(Contender& contender) {
    Figures figures;
    figures.contender = contender.Name();
    try {
        Clock::time_point start = Clock::now();
        contender.Prepare();
        figures.prepareSeconds = SecondsSince(start);
        Ingest(contender, figures);
        if (ingestOnly_) {
            contender.Close();
            return figures;
        }
        ProcessProbe::ResetPeakRss();
        start = Clock::now();
        Lookups(contender, figures);
        Scans(contender, figures);
        figures.readSeconds = SecondsSince(start);
        figures.peakRssReads = ProcessProbe::PeakRssBytes();
    } catch (...) {
        contender.Close();
        throw;
    }
    contender.Close();
    return figures;
}

void ContenderRun::Ingest(Contender& contender, Figures& figures) {
    ProcessProbe::ResetPeakRss();
    const ProcessProbe::Reading before = probe_.Read();
    figures.ingestSeconds = RunIngestThreads(contender);
    const ProcessProbe::Reading after = probe_.Read();
    figures.peakRssIngest = ProcessProbe::PeakRssBytes();
    figures.ingestMBps = MBps(workload_.BytesWritten(), figures.ingestSeconds);
    figures.cpuSeconds = after.cpuSeconds - before.cpuSeconds;
    // What is still in the page cache (indexes, journals) reaches the device
    // too; counted, not timed.
    SyncAndDropFromCache(contender.Files());
    const ProcessProbe::Reading synced = probe_.Read();
    figures.writeAmpProcess =
        Ratio(synced.writtenBytes - before.writtenBytes, workload_.BytesWritten());
    if (probe_.HasDevice())
        figures.writeAmpDevice =
            Ratio(synced.deviceBytes - before.deviceBytes, workload_.BytesWritten());
}

double ContenderRun::RunIngestThreads(Contender& contender) {
    std::vector<std::unique_ptr<ChunkStream>> streams(workload_.tracks);
    return RunTrackThreads(
        workload_.tracks, [&](int t) { streams[t] = std::make_unique<ChunkStream>(workload_, t); },
        [&](int t) { contender.Ingest(t, *streams[t]); });
}

void ContenderRun::Lookups(Contender& contender, Figures& figures) {
    Readers readers;
    for (int t = 0; t < workload_.tracks; ++t) {
        readers.readers.push_back(contender.OpenReader(t));
        readers.files.push_back(contender.TrackFiles(t));
    }
    SyncAndDropFromCache(contender.Files());
    Latencies cold;
    const uint64_t coldMisses = LookupPass(readers, true, cold);
    // The cold pass dropped much of what it read: read it all once more
    // before timing the same lookups warm.
    Latencies warm;
    LookupPass(readers, false, warm);
    warm = Latencies();
    const uint64_t warmMisses = LookupPass(readers, false, warm);
    figures.coldP50 = cold.Percentile(50);
    figures.coldP99 = cold.Percentile(99);
    figures.warmP50 = warm.Percentile(50);
    figures.warmP99 = warm.Percentile(99);
    figures.lookups = plan_.lookups.size();
    figures.lookupMisses = std::max(coldMisses, warmMisses);
}

uint64_t ContenderRun::LookupPass(Readers& readers, bool cold, Latencies& latencies) {
    std::string payload;
    uint64_t misses = 0;
    latencies.Reserve(plan_.lookups.size());
    for (const LookupPlan::Lookup& lookup : plan_.lookups) {
        // Else earlier lookups (and their read-ahead) would warm the files
        // for the later ones.
        if (cold)
            DropFromCache(readers.files[lookup.track]);  // synced before the pass
        const Clock::time_point start = Clock::now();
        const bool found = readers.readers[lookup.track]->Get(lookup.timePoint, payload);
        latencies.Add(std::chrono::nanoseconds(Clock::now() - start).count());
        misses += !found || ChunkStream::StampOf(payload) != lookup.index;
    }
    return misses;
}

void ContenderRun::Scans(Contender& contender, Figures& figures) {
    SyncAndDropFromCache(contender.Files());
    double seconds = 0;
    figures.scannedBytes = ScanAll(contender, seconds);
    figures.scanColdMBps = MBps(figures.scannedBytes, seconds);
    const uint64_t warmBytes = ScanAll(contender, seconds);
    figures.scanWarmMBps = MBps(warmBytes, seconds);
}

uint64_t ContenderRun::ScanAll(Contender& contender, double& seconds) {
    std::string payload;
    uint64_t bytes = 0;
    seconds = 0;
    for (int t = 0; t < workload_.tracks; ++t) {
        const Contender::Range range = contender.TrackRange(t);
        std::unique_ptr<TrackReading> reader = contender.OpenReader(t);
        const Clock::time_point start = Clock::now();
        int64_t at = range.begin;
        for (bool found = reader->Get(at, payload); found; found = reader->Next(at, payload))
            bytes += payload.size();
        seconds += SecondsSince(start);
    }
    return bytes;
}

}  // namespace loopstore::bench
