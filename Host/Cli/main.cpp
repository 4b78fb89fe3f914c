// The loopstore command line: pool creation, the server, track
// administration, recording and export, offline checks and the demo.

#include <CLI/CLI.hpp>

#include <iostream>

#include "Host/Cli/CliError.h"
#include "Host/Cli/DemoCommand.h"
#include "Host/Cli/ExportCommand.h"
#include "Host/Cli/FsckCommand.h"
#include "Host/Cli/PoolCommand.h"
#include "Host/Cli/PropertyCommands.h"
#include "Host/Cli/ProtectionCommands.h"
#include "Host/Cli/RecordCommand.h"
#include "Host/Cli/ServeCommand.h"
#include "Host/Cli/StatusCommands.h"
#include "Host/Cli/TrackCommands.h"

int main(int argc, char** argv) {
    using namespace loopstore::cli;
    CLI::App app(
        "loopstore: loop recording storage for video tracks.\n"
        "Times: ISO-8601 (2026-11-21T04:33:00Z), now, -10m, +30s, 123ns. "
        "Sizes: 64M, 1G, 4096.",
        "loopstore");
    app.require_subcommand(1);
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
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    } catch (const CliError& e) {
        std::cerr << "loopstore: " << e.what() << '\n';
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "loopstore: unexpected error: " << e.what() << '\n';
        return 1;
    }
    return exitCode;
}
