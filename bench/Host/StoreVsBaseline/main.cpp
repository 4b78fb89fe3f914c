// loopstore against a plain baseline on the same volume, through the host
// API, workload by workload; see README.md ("Benchmarks") for how to read it.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Logging/LoggingManager.h"
#include "bench/Host/StoreVsBaseline/BaselineStore.h"
#include "bench/Host/StoreVsBaseline/ContenderRun.h"
#include "bench/Host/StoreVsBaseline/FileWalk.h"
#include "bench/Host/StoreVsBaseline/GrpcIngest.h"
#include "bench/Host/StoreVsBaseline/Options.h"
#include "bench/Host/StoreVsBaseline/Report.h"
#include "bench/Host/StoreVsBaseline/StoreContender.h"

namespace {

namespace fs = std::filesystem;
using namespace loopstore::bench;

// Warnings and errors only, unless LOOPSTORE_LOG_LEVEL asks for more.
void ConfigureLogging() {
    int level = tav::mr::logging::kWarning;
    if (const char* text = std::getenv("LOOPSTORE_LOG_LEVEL"))
        level = std::atoi(text) > 0 ? std::atoi(text) : level;
    tav::mr::logging::LoggingManager::ConfigureConsole(level);
}

std::string LoadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// A directory of this run's own under `parent` (default: the program's).
fs::path RunDirectory(const std::string& parent) {
    const fs::path base =
        parent.empty() ? fs::read_symlink("/proc/self/exe").parent_path() : fs::path(parent);
    const fs::path dir = base / ("store-vs-baseline." + std::to_string(::getpid()));
    fs::create_directories(dir);
    return dir;
}

void PrintConditions(const fs::path& dir, const ProcessProbe& probe) {
    std::printf("store-vs-baseline in %s (device %s), %u cores, load average %s\n", dir.c_str(),
                probe.HasDevice() ? probe.Device().c_str() : "unknown",
                std::thread::hardware_concurrency(), LoadAverage().c_str());
    if (IsOnTmpfs(dir.string()))
        std::printf(
            "WARNING: %s is on tmpfs: syncs, cold reads and device writes mean "
            "nothing there; give --dir on a disk\n",
            dir.c_str());
    if (!ProcessProbe::ResetPeakRss())
        std::printf("WARNING: /proc/self/clear_refs refused: peak RSS is the process's\n");
}

std::vector<Figures> RunWorkload(const Options& options, const Workload& workload,
                                 const fs::path& dir, const ProcessProbe& probe) {
    const LookupPlan plan = LookupPlan::For(workload, options.lookups);
    ContenderRun run(workload, plan, probe, options.ingestOnly);
    std::vector<Figures> figures;
    if (options.contenders != "loopstore") {
        BaselineStore baseline((dir / "baseline").string(), workload);
        figures.push_back(run.Run(baseline));
    }
    if (options.contenders == "baseline")
        return figures;
    StoreContender store("loopstore", (dir / "loopstore").string(), workload,
                         options.cacheMemoryBytes);
    figures.push_back(run.Run(store));
    if (options.compareDefaults) {
        StoreContender defaults("loopstore(defaults)", (dir / "defaults").string(), workload, 0);
        figures.push_back(run.Run(defaults));
    }
    return figures;
}

// For profiling the server: the gRPC ingest alone, without a ratio.
void RunGrpcOnly(const Options& options, const Workload& workload, const fs::path& dir) {
    GrpcIngest grpc((dir / "grpc").string(), workload, options.cacheMemoryBytes,
                    options.grpcWindowBytes);
    const double mbps = grpc.Run();
    std::printf("gRPC ingest (workload %s): %.2f MB/s, peak RSS %.1f MiB\n", workload.name.c_str(),
                mbps, static_cast<double>(grpc.PeakRssBytes()) / (1 << 20));
}

void RunAll(const Options& options, const fs::path& dir) {
    const ProcessProbe probe(dir.string());
    PrintConditions(dir, probe);
    const Report report(stdout);
    for (const Workload& workload : options.SelectedWorkloads()) {
        if (options.contenders == "grpc") {
            RunGrpcOnly(options, workload, dir);
            continue;
        }
        const std::vector<Figures> figures = RunWorkload(options, workload, dir, probe);
        report.Workload(workload, options.cacheMemoryBytes, figures);
        // The network adds its cost to the first workload's ingest.
        if (options.grpc && workload.name == "A" && figures.size() > 1) {
            GrpcIngest grpc((dir / "grpc").string(), workload, options.cacheMemoryBytes,
                            options.grpcWindowBytes);
            const double mbps = grpc.Run();
            report.Grpc(workload, mbps, grpc.PeakRssBytes(), figures[1]);
        }
    }
    std::printf("\nload average at the end %s\n", LoadAverage().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = Options::Parse(argc, argv);
    ConfigureLogging();
    const auto start = std::chrono::steady_clock::now();
    fs::path dir;
    int status = 0;
    try {
        dir = RunDirectory(options.directory);
        RunAll(options, dir);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "store-vs-baseline: %s\n", e.what());
        status = 1;
    }
    std::error_code ignored;
    if (!dir.empty())
        fs::remove_all(dir, ignored);
    std::printf("took %.0f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return status;
}
