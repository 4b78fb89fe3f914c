#pragma once

#include <string>

#include "Platform/Logging/Logger.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/File/FilesPool.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"

// Start-up step that makes the directories agree with "pool.db" once the
// pool is open and an interrupted move is finished: a pool file found in the
// wrong directory is renamed to where "pool.db" places it, a lent file its
// track's database does not list is given back to that track as an empty
// file, and a missing pool directory or a pool file of the wrong size is
// reported. Never deletes anything.
//
// Uses, does not own, the pool, the directory handler and the managers; runs
// on the factory's thread before any request.
class StoreReconciliation {
  public:
    StoreReconciliation(FilesPool& pool, DirectoryHandler& directories,
                        LoopRecordingFileManagers& managers, std::string poolDirectory);

    // Logs what it finds and changes ("LoopRecordingFactory": 50 errors, 40
    // files moved back). A rename or sync that fails is logged and the file
    // left where it is.
    void Run();

  private:
    // Where "pool.db" places `file`.
    std::string PlaceOf(const ChunkFile& file) const;
    // Moves `file` back from another directory when it is not in its place;
    // true when it is (or now is) in its place.
    bool BringBack(const ChunkFile& file, const std::string& place);
    // The other place where `file` lies, or empty; sets `holder` (0: pool).
    std::string FindElsewhere(const ChunkFile& file, long& holder) const;
    void CheckSize(const ChunkFile& file, const std::string& place);
    void GiveBackToTrack(const ChunkFile& file);

    FilesPool& pool_;
    DirectoryHandler& directories_;
    LoopRecordingFileManagers& managers_;
    const std::string poolDirectory_;
    tav::mr::logging::Logger logger_;
};
