#include "Host/Cli/FsckCommand.h"

#include <iostream>
#include <memory>
#include <sstream>

#include "Host/Cli/Output.h"
#include "Host/Cli/StorageDirectories.h"
#include "Host/Cli/StoreChecker.h"

namespace loopstore::cli {

void FsckCommand::Register(CLI::App& app, int& exitCode) {
    struct Args {
        StorageDirectories directories;
        bool json = false;
    };
    auto a = std::make_shared<Args>();
    CLI::App* cmd = app.add_subcommand(
        "fsck", "Check a store offline (stop its server first): pool, indexes, chunk records");
    a->directories.AddTo(*cmd);
    cmd->add_flag("--json", a->json, "Print the report as JSON");
    cmd->callback([a, &exitCode] {
        const StoreChecker::Report r = StoreChecker(a->directories.Resolve()).Run();
        std::ostringstream text;
        text << "checked " << r.tracks << " tracks, " << r.chunks << " chunks, "
             << Output::Bytes(r.bytes) << ": "
             << (r.Clean() ? "clean" : std::to_string(r.faults.size()) + " faults") << '\n';
        for (const std::string& fault : r.faults)
            text << "  " << fault << '\n';
        Output(a->json, std::cout)
            .Print({{"tracks", r.tracks},
                    {"chunks", r.chunks},
                    {"bytes", r.bytes},
                    {"clean", r.Clean()},
                    {"faults", r.faults}},
                   text.str());
        exitCode = r.Clean() ? 0 : 1;
    });
}

}  // namespace loopstore::cli
