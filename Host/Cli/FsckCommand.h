#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore fsck": checks a store offline without changing a byte of it
// (pool, track directories and databases, every chunk record) and reports
// each problem with what a repair would do. "--repair" opens the store once
// (its start-up repairs what it can), checks again and reports what changed.
class FsckCommand {
  public:
    FsckCommand() = delete;

    // `exitCode` becomes 0 for a clean store, 1 when problems are found (or
    // left after a repair), 2 when the store cannot be checked.
    static void Register(CLI::App& app, int& exitCode);
};

}  // namespace loopstore::cli
