#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Host/Cli/DataLayout.h"

class LoopRecordingFileManager;
namespace FileSystem {
class Block;
}

namespace loopstore::cli {

// Offline check of a store that no server has open: the pool is where its
// database says, every track's index holds its invariants, and every indexed
// chunk's record in its file is intact and is the chunk the index names
// (time point and size).
//
// Opens the store with the storage library itself, so an interrupted move or
// an unclean stop is repaired first, as a server start would. Not
// thread-safe; the store must not be served while it runs.
class StoreChecker {
  public:
    struct Report {
        uint64_t tracks = 0;
        uint64_t chunks = 0;
        uint64_t bytes = 0;
        std::vector<std::string> faults;
        bool Clean() const { return faults.empty(); }
    };

    explicit StoreChecker(DataLayout layout);

    // Throws CliError when the store cannot be opened at all.
    Report Run();

  private:
    void CheckTrack(LoopRecordingFileManager& manager, Report& report) const;
    void CheckBlock(long trackId, const FileSystem::Block& block, Report& report) const;

    const DataLayout layout_;
};

}  // namespace loopstore::cli
