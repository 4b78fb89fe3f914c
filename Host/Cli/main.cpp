// The loopstore command line: pool creation, the server, track
// administration, recording and export, offline checks and the demo.

#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <string_view>

#include "Host/Cli/CliError.h"
#include "Host/Cli/DemoCommand.h"
#include "Host/Cli/ExportCommand.h"
#include "Host/Cli/FsckCommand.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/PoolCommand.h"
#include "Host/Cli/PropertyCommands.h"
#include "Host/Cli/ProtectionCommands.h"
#include "Host/Cli/RecordCommand.h"
#include "Host/Cli/ServeCommand.h"
#include "Host/Cli/StatusCommands.h"
#include "Host/Cli/TrackCommands.h"

namespace {

constexpr const char* kFooter =
    "Exit codes:\n"
    "  0        done (fsck: the store is clean)\n"
    "  1        the command failed: bad input, unknown track, protection or property,\n"
    "           server unreachable or refusing; fsck: the store has problems;\n"
    "           serve: the server failed to start or stopped on an error\n"
    "  2        fsck could not check the store; serve could not set up its logging\n"
    "           or its stop signals\n"
    "  104-109  usage errors: 104 bad number, 105 bad value, 106 missing argument,\n"
    "           107 option needs another, 108 options exclude each other,\n"
    "           109 unknown argument or subcommand\n"
    "Errors: printed on stderr as \"loopstore: <reason>\", or with --json as one\n"
    "JSON object {\"error\": \"<reason>\", \"exit_code\": N}; stdout stays empty.";

// --json belongs to the subcommands, yet errors thrown while parsing must
// honour it too, so look for it before CLI11 does.
bool WantsJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]) == "--json")
            return true;
    return false;
}

int Fail(bool json, const std::string& message, int code) {
    loopstore::cli::Output::Error(json, std::cerr, message, code);
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace loopstore::cli;
    CLI::App app(
        "loopstore: loop recording storage for video tracks.\n"
        "Times: ISO-8601 (2026-11-21T04:33:00Z), now, -10m, +30s, -1d, -2w, 123ns. "
        "Sizes: 64M, 1G, 4096.",
        "loopstore");
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("loopstore ") + LOOPSTORE_VERSION);
    int exitCode = 0;
    PoolCommand::Register(app);
    ServeCommand::Register(app, exitCode);
    TrackCommands::Register(app);
    ProtectionCommands::Register(app);
    PropertyCommands::Register(app);
    StatusCommands::Register(app);
    RecordCommand::Register(app);
    ExportCommand::Register(app);
    FsckCommand::Register(app, exitCode);
    DemoCommand::Register(app);
    app.footer(kFooter);
    const bool json = WantsJson(argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version are ParseErrors too, with exit code 0.
        if (!json || e.get_exit_code() == 0)
            return app.exit(e);
        return Fail(json, e.what(), e.get_exit_code());
    } catch (const CliError& e) {
        return Fail(json, e.what(), 1);
    } catch (const std::exception& e) {
        return Fail(json, std::string("unexpected error: ") + e.what(), 1);
    }
    return exitCode;
}
