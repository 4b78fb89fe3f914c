#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore props set | get | rm": a track's key/value properties.
class PropertyCommands {
  public:
    PropertyCommands() = delete;

    static void Register(CLI::App& app);

  private:
    static void AddSet(CLI::App& props);
    static void AddGet(CLI::App& props);
    static void AddRemove(CLI::App& props);
};

}  // namespace loopstore::cli
