#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore pool init DIR --files N --size BYTES": makes the preallocated
// files of a new pool, with a progress line when stderr is a terminal.
class PoolCommand {
  public:
    PoolCommand() = delete;

    static void Register(CLI::App& app);
};

}  // namespace loopstore::cli
