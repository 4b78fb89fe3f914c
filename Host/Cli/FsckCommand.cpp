#include "Host/Cli/FsckCommand.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>

#include "Host/Cli/Output.h"
#include "Host/Cli/StorageDirectories.h"
#include "Storage/Server/Factories/StoreCheck.h"

namespace loopstore::cli {

namespace {

using Problems = std::vector<StoreCheck::Problem>;

bool Contains(const Problems& problems, const StoreCheck::Problem& problem) {
    return std::find(problems.begin(), problems.end(), problem) != problems.end();
}

nlohmann::json Json(const Problems& problems) {
    nlohmann::json list = nlohmann::json::array();
    for (const StoreCheck::Problem& p : problems)
        list.push_back({{"problem", p.what}, {"repair", p.repair}});
    return list;
}

void PrintProblems(std::ostringstream& text, const Problems& problems, bool withRepair) {
    for (const StoreCheck::Problem& p : problems) {
        text << "  " << p.what << '\n';
        if (withRepair)
            text << "    repair: " << p.repair << '\n';
    }
}

// Starts the store once: its start-up finishes interrupted moves, repairs
// track indexes and reconciles the directories with the databases.
void Repair(const LoopRecordingFileFactory::FactoryParameters& directories) {
    LoopRecordingFileFactory factory(directories);
}

int Fsck(const LoopRecordingFileFactory::FactoryParameters& directories, bool repair, bool json) {
    StoreCheck::Report report = StoreCheck(directories).Run();
    Problems repaired;
    if (repair) {
        const Problems before = report.problems;
        Repair(directories);
        report = StoreCheck(directories).Run();
        for (const StoreCheck::Problem& p : before)
            if (!Contains(report.problems, p))
                repaired.push_back(p);
    }
    std::ostringstream text;
    text << "checked " << report.tracks << " tracks, " << report.chunks << " chunks, "
         << Output::Bytes(report.bytes) << ": "
         << (report.Clean() ? "clean" : std::to_string(report.problems.size()) + " problems")
         << '\n';
    PrintProblems(text, report.problems, true);
    if (repair) {
        text << "repaired " << repaired.size() << " problems\n";
        PrintProblems(text, repaired, false);
    }
    nlohmann::json answer = {{"tracks", report.tracks},
                             {"chunks", report.chunks},
                             {"bytes", report.bytes},
                             {"clean", report.Clean()},
                             {"problems", Json(report.problems)}};
    if (repair)
        answer["repaired"] = Json(repaired);
    Output(json, std::cout).Print(answer, text.str());
    return report.Clean() ? 0 : 1;
}

}  // namespace

void FsckCommand::Register(CLI::App& app, int& exitCode) {
    struct Args {
        StorageDirectories directories;
        bool repair = false;
        bool json = false;
    };
    auto a = std::make_shared<Args>();
    CLI::App* cmd = app.add_subcommand(
        "fsck",
        "Check a store offline (stop its server first) without changing it: pool, "
        "track directories and databases, chunk records");
    a->directories.AddTo(*cmd);
    cmd->add_flag("--repair", a->repair,
                  "Open the store once (its start-up repairs what it can), then check again");
    cmd->add_flag("--json", a->json, "Print the report as JSON");
    cmd->callback([a, &exitCode] {
        const DataLayout layout = a->directories.Resolve();
        try {
            exitCode = Fsck({layout.tracks, layout.db, layout.pool}, a->repair, a->json);
        } catch (const std::exception& e) {
            exitCode = 2;
            Output::Error(a->json, std::cerr,
                          "cannot check the store " + layout.db + ": " + e.what(), exitCode);
        }
    });
}

}  // namespace loopstore::cli
