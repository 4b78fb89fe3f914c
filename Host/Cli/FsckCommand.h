#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore fsck": checks a store offline (pool, indexes, every chunk
// record) and exits non-zero when it finds a fault.
class FsckCommand {
  public:
    FsckCommand() = delete;

    // `exitCode` becomes 1 when the store has faults.
    static void Register(CLI::App& app, int& exitCode);
};

}  // namespace loopstore::cli
