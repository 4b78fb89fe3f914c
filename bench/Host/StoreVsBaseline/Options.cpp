#include "bench/Host/StoreVsBaseline/Options.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <limits>

#include "Host/Cli/CliError.h"
#include "Host/Cli/SizeParser.h"
#include "Host/Server/ServerMain.h"

namespace loopstore::bench {

namespace {

uint64_t SizeOption(const std::string& text, const char* name) {
    try {
        return cli::SizeParser::ParseSize(text);
    } catch (const cli::CliError& e) {
        throw CLI::ValidationError(name, e.what());
    }
}

int WindowOption(const std::string& text) {
    const uint64_t bytes = SizeOption(text, "--grpc-window");
    if (bytes > static_cast<uint64_t>(std::numeric_limits<int>::max()))
        throw CLI::ValidationError("--grpc-window", "at most 2 GiB - 1");
    return static_cast<int>(bytes);
}

}  // namespace

Options Options::Parse(int argc, char** argv) {
    Options options;
    std::string bytes;
    std::string cacheMemory = "256M";
    CLI::App app(
        "loopstore against a plain pwritev + fdatasync + std::map baseline, on one volume: "
        "ingest, CPU, memory, write amplification, lookups and scans");
    app.add_option("--dir", options.directory,
                   "Directory on the volume to measure (default: next to the program)");
    app.add_option("--scale", options.scale,
                   "Multiply track sizes and volume written (1: 2 GiB for A, 16 GiB for B)")
        ->check(CLI::PositiveNumber);
    app.add_option("--bytes", bytes, "Volume written per workload (e.g. 512M); overrides --scale");
    app.add_option("--workload", options.workloads, "Workloads to run: A, B or AB")
        ->check(CLI::IsMember({"A", "B", "AB"}));
    app.add_option("--cache-memory", cacheMemory,
                   "Cache budget given to loopstore (0: the library's defaults)");
    app.add_flag("--compare-defaults", options.compareDefaults,
                 "Also run loopstore with the library's defaults (cache memory 0)");
    app.add_option("--lookups", options.lookups, "Random lookups per pass")
        ->check(CLI::PositiveNumber);
    std::string grpcWindow = std::to_string(host::ServerOptions::kDefaultStreamWindowBytes);
    app.add_option("--grpc-window", grpcWindow,
                   "The gRPC server's receive window per stream (0: gRPC grows it)");
    app.add_option("--contender", options.contenders,
                   "Run only this side, for profiling: baseline, loopstore, grpc (the server's "
                   "ingest alone) or all")
        ->check(CLI::IsMember({"baseline", "loopstore", "grpc", "all"}));
    app.add_flag("--ingest-only", options.ingestOnly, "Measure ingest only: no lookups, no scans");
    bool noGrpc = false;
    app.add_flag("--no-grpc", noGrpc, "Skip the ingest through the gRPC server");
    try {
        app.parse(argc, argv);
        options.cacheMemoryBytes = SizeOption(cacheMemory, "--cache-memory");
        options.grpcWindowBytes = WindowOption(grpcWindow);
        if (!bytes.empty())
            options.bytes = SizeOption(bytes, "--bytes");
    } catch (const CLI::ParseError& e) {
        std::exit(app.exit(e));
    }
    options.grpc = !noGrpc;
    return options;
}

std::vector<Workload> Options::SelectedWorkloads() const {
    std::vector<Workload> selected;
    for (const Workload& full : {Workload::A(), Workload::B()}) {
        if (workloads.find(full.name) == std::string::npos)
            continue;
        const double factor =
            bytes != 0 ? static_cast<double>(bytes) / static_cast<double>(full.totalBytes) : scale;
        selected.push_back(full.Scaled(factor));
    }
    return selected;
}

}  // namespace loopstore::bench
