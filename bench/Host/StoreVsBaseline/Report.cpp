#include "bench/Host/StoreVsBaseline/Report.h"

namespace loopstore::bench {

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

struct Row {
    const char* label;
    const char* key;  // of the machine-readable line
    double (*value)(const Figures&);
};

const Row kRows[] = {
    {"ingest MB/s", "ingest_mbps", [](const Figures& f) { return f.ingestMBps; }},
    {"ingest CPU s", "ingest_cpu_s", [](const Figures& f) { return f.cpuSeconds; }},
    {"peak RSS ingest MiB", "peak_rss_ingest_mib",
     [](const Figures& f) { return f.peakRssIngest / kMiB; }},
    {"write amp (process io)", "write_amp_process",
     [](const Figures& f) { return f.writeAmpProcess; }},
    {"write amp (device)", "write_amp_device", [](const Figures& f) { return f.writeAmpDevice; }},
    {"cold lookup p50 us", "cold_lookup_p50_us", [](const Figures& f) { return f.coldP50 / 1e3; }},
    {"cold lookup p99 us", "cold_lookup_p99_us", [](const Figures& f) { return f.coldP99 / 1e3; }},
    {"warm lookup p50 us", "warm_lookup_p50_us", [](const Figures& f) { return f.warmP50 / 1e3; }},
    {"warm lookup p99 us", "warm_lookup_p99_us", [](const Figures& f) { return f.warmP99 / 1e3; }},
    {"scan cold MB/s", "scan_cold_mbps", [](const Figures& f) { return f.scanColdMBps; }},
    {"scan warm MB/s", "scan_warm_mbps", [](const Figures& f) { return f.scanWarmMBps; }},
    {"peak RSS reads MiB", "peak_rss_reads_mib",
     [](const Figures& f) { return f.peakRssReads / kMiB; }},
    {"lookup misses", "lookup_misses",
     [](const Figures& f) { return static_cast<double>(f.lookupMisses); }},
    // Where the run's time went.
    {"prepare s (untimed)", "prepare_s", [](const Figures& f) { return f.prepareSeconds; }},
    {"ingest s", "ingest_s", [](const Figures& f) { return f.ingestSeconds; }},
    {"reads s", "reads_s", [](const Figures& f) { return f.readSeconds; }},
};

double RatioOf(double value, double baseline) {
    return baseline != 0 ? value / baseline : 0;
}

}  // namespace

void Report::Header(const bench::Workload& w, unsigned long cacheMemoryBytes,
                    bool withDefaults) const {
    std::fprintf(out_,
                 "\nWorkload %s: %d tracks, %llu-byte chunks of %lld ms, %.1f MiB per track "
                 "in %llu files of %.2f MiB, %.1f MiB written (rings wrap %.1f times)\n",
                 w.name.c_str(), w.tracks, static_cast<unsigned long long>(w.chunkBytes),
                 static_cast<long long>(w.chunkDurationNs / 1'000'000), w.trackBytes / kMiB,
                 static_cast<unsigned long long>(Workload::kFilesPerTrack), w.FileSize() / kMiB,
                 w.BytesWritten() / kMiB, w.Wraps());
    const std::string budget = cacheMemoryBytes == 0
                                   ? std::string("0 (the library's defaults)")
                                   : std::to_string(cacheMemoryBytes / (1024 * 1024)) + " MiB";
    std::fprintf(out_, "loopstore: cache memory %s%s\n", budget.c_str(),
                 withDefaults ? "; loopstore(defaults): the library's defaults" : "");
}

void Report::Workload(const bench::Workload& workload, unsigned long cacheMemoryBytes,
                      const std::vector<Figures>& figures) const {
    if (figures.empty())
        return;
    Header(workload, cacheMemoryBytes, figures.size() > 2);
    const Figures& baseline = figures.front();
    std::fprintf(out_, "%-24s %12s", "figure", baseline.contender.c_str());
    for (size_t i = 1; i < figures.size(); ++i)
        std::fprintf(out_, " %20s %7s", figures[i].contender.c_str(), "ratio");
    std::fprintf(out_, "\n");
    for (const Row& row : kRows) {
        const double base = row.value(baseline);
        std::fprintf(out_, "%-24s %12.2f", row.label, base);
        for (size_t i = 1; i < figures.size(); ++i) {
            const double value = row.value(figures[i]);
            std::fprintf(out_, " %20.2f %7.2f", value, RatioOf(value, base));
        }
        std::fprintf(out_, "\n");
    }
    for (size_t i = 1; i < figures.size(); ++i) {
        for (const Row& row : kRows) {
            const double base = row.value(baseline);
            const double value = row.value(figures[i]);
            std::fprintf(out_,
                         "RESULT workload=%s figure=%s contender=%s value=%.4g baseline=%.4g "
                         "ratio=%.4g\n",
                         workload.name.c_str(), row.key, figures[i].contender.c_str(), value, base,
                         RatioOf(value, base));
        }
    }
    std::fflush(out_);
}

void Report::Grpc(const bench::Workload& workload, double grpcMBps, uint64_t peakRssBytes,
                  const Figures& inProcess) const {
    const double ratio = RatioOf(grpcMBps, inProcess.ingestMBps);
    std::fprintf(out_,
                 "\ngRPC ingest (workload %s, %d streams over loopback): %.2f MB/s, "
                 "in-process %s %.2f MB/s, ratio %.2f\n",
                 workload.name.c_str(), workload.tracks, grpcMBps, inProcess.contender.c_str(),
                 inProcess.ingestMBps, ratio);
    std::fprintf(out_,
                 "RESULT workload=%s figure=grpc_ingest_mbps contender=grpc value=%.4g "
                 "baseline=%.4g ratio=%.4g\n",
                 workload.name.c_str(), grpcMBps, inProcess.ingestMBps, ratio);
    const double peakMiB = static_cast<double>(peakRssBytes) / (1 << 20);
    const double inProcessMiB = static_cast<double>(inProcess.peakRssIngest) / (1 << 20);
    std::fprintf(out_, "gRPC ingest peak RSS %.1f MiB, in-process %.1f MiB\n", peakMiB,
                 inProcessMiB);
    std::fprintf(out_,
                 "RESULT workload=%s figure=grpc_peak_rss_mib contender=grpc value=%.4g "
                 "baseline=%.4g ratio=%.4g\n",
                 workload.name.c_str(), peakMiB, inProcessMiB, RatioOf(peakMiB, inProcessMiB));
    std::fflush(out_);
}

}  // namespace loopstore::bench
