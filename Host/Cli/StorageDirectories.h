#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "Host/Cli/DataLayout.h"

namespace loopstore::cli {

// The storage directories of the commands that open a store (serve, fsck):
// either all three of --tracks, --db and --pool, or the default layout under
// --data. Filled in by CLI11.
struct StorageDirectories {
    std::string data = "./loopstore-data";
    std::string tracks;
    std::string db;
    std::string pool;

    void AddTo(CLI::App& command);
    // The directories to use; throws CliError when only some of --tracks,
    // --db and --pool were given.
    DataLayout Resolve() const;
    // True when the default layout under --data is used.
    bool UsesDataDirectory() const { return tracks.empty() && db.empty() && pool.empty(); }
};

}  // namespace loopstore::cli
