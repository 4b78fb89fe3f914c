#pragma once

#include <cstdint>
#include <string>

namespace loopstore::cli {

// The default on-disk layout under one data directory: "tracks", "db" and
// "pool" side by side. Used by serve, fsck and demo when no directories are
// named one by one.
struct DataLayout {
    static constexpr uint64_t kDefaultPoolFiles = 64;

    std::string tracks;
    std::string db;
    std::string pool;

    static DataLayout Under(const std::string& dataDirectory);

    // Creates the three directories, and a pool of `files` x `fileSize` when
    // the storage was never started here (no "pool.db") and the pool
    // directory is empty. Returns true when it made the pool. Throws CliError.
    bool Prepare(uint64_t files, uint64_t fileSize) const;
};

}  // namespace loopstore::cli
