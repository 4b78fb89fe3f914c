#include "Host/Cli/DemoCommand.h"

#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>

#include "Host/Cli/DemoRunner.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/StopSignal.h"

namespace loopstore::cli {

void DemoCommand::Register(CLI::App& app) {
    struct Args {
        DemoRunner::Options options;
        bool json = false;
    };
    auto a = std::make_shared<Args>();
    CLI::App* cmd = app.add_subcommand(
        "demo",
        "Run the main job on a private store: record looping tracks, protect, verify, restart");
    cmd->add_option("--data", a->options.dataDirectory,
                    "Data directory to use (default: a temporary one, removed afterwards)");
    cmd->add_option("--tracks", a->options.tracks, "Number of tracks")
        ->capture_default_str()
        ->check(CLI::Range(1, 16));
    cmd->add_flag("--json", a->json, "Print the summary as JSON");
    cmd->add_flag("--keep-serving", a->options.keepServing,
                  "After the checks, keep serving (HTTP on) and record live on two tracks "
                  "until Ctrl-C or SIGTERM");
    cmd->add_option("--http", a->options.httpAddress,
                    "HTTP address of the page with --keep-serving (loopback only)")
        ->capture_default_str();
    cmd->callback([a] {
        // Blocks the stop signals before the demo starts any thread.
        std::optional<StopSignal> stop;
        if (a->options.keepServing) {
            stop.emplace();
            a->options.stop = &stop->Flag();
            a->options.announce = &std::cout;
        }
        std::ostringstream quiet;
        DemoRunner runner(a->options, a->json ? static_cast<std::ostream&>(quiet) : std::cout);
        const DemoRunner::Summary s = runner.Run();
        const double mbps = s.bytesWritten / std::max(s.recordSeconds, 1e-6) / 1e6;
        char text[512];
        std::snprintf(text, sizeof text,
                      "demo passed: %d tracks, %llu chunks (%s) recorded, %.1f loops per track, "
                      "%llu chunks verified after restart, %.1f MB/s recording, %.1f s in all",
                      s.tracks, static_cast<unsigned long long>(s.chunksWritten),
                      Output::Bytes(s.bytesWritten).c_str(), s.loops,
                      static_cast<unsigned long long>(s.chunksVerified), mbps, s.totalSeconds);
        Output(a->json, std::cout)
            .Print({{"passed", true},
                    {"tracks", s.tracks},
                    {"chunks_written", s.chunksWritten},
                    {"bytes_written", s.bytesWritten},
                    {"chunks_verified", s.chunksVerified},
                    {"bytes_verified", s.bytesVerified},
                    {"loops", s.loops},
                    {"record_mb_per_s", mbps},
                    {"seconds", s.totalSeconds}},
                   text);
    });
}

}  // namespace loopstore::cli
