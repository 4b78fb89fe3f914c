#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore track ...": create, resize, delete, clear, list and describe the
// tracks of a running server.
class TrackCommands {
  public:
    TrackCommands() = delete;

    // Adds the "track" command and its subcommands to `app`. The callbacks
    // throw CliError on failure.
    static void Register(CLI::App& app);

  private:
    static void AddCreate(CLI::App& track);
    static void AddGrow(CLI::App& track);
    static void AddDelete(CLI::App& track);
    static void AddClear(CLI::App& track);
    static void AddList(CLI::App& track);
    static void AddInfo(CLI::App& track);
};

}  // namespace loopstore::cli
