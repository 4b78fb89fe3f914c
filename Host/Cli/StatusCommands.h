#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore workers | space": what is reading and writing now, and how much
// room the pool has left.
class StatusCommands {
  public:
    StatusCommands() = delete;

    static void Register(CLI::App& app);

  private:
    static void AddWorkers(CLI::App& app);
    static void AddSpace(CLI::App& app);
};

}  // namespace loopstore::cli
