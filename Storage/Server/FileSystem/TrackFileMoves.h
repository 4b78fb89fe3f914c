#pragma once

#include "Platform/Logging/Logger.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/File/FilesPool.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"

// The moves of files between a pool and the tracks, each kept in step with
// the track's index: a new track's files, a track grown or shrunk, the
// unprotected files of a track being deleted. A move the pool stopped
// (an interrupted move, finished at the next start) leaves the track as the
// pool left it and logs at level 40.
//
// A view over the directory handler and the index registry of the track
// storage, whose logger it writes to. No thread-safety of its own: the track
// storage calls it under its pool mutex, which serialises every move.
class TrackFileMoves {
  public:
    TrackFileMoves(DirectoryHandler& directories, LoopRecordingFileManagers& managers,
                   const tav::mr::logging::Logger& logger)
        : directories_(directories), managers_(managers), logger_(logger) {}

    // A free id when `requested` is 0; throws std::runtime_error when none
    // is left.
    long ChooseTrackId(long requested) const;
    // Creates track `id` with `bytes` of files from `pool`. Throws
    // std::runtime_error when the track exists, or (the files put back and
    // the directory gone) when the pool cannot serve.
    void Create(long id, unsigned long bytes, FilesPool& pool, Protocol::TrackParameters& out);
    void Extend(long id, unsigned long bytes, FilesPool& pool, LoopRecordingFileManager& manager,
                Protocol::TrackParameters& out);
    void Shrink(long id, unsigned long bytes, FilesPool& pool, LoopRecordingFileManager& manager,
                Protocol::TrackParameters& out);
    // Returns the unprotected files of a track being deleted to the pool;
    // true when nothing is left and the track is gone (but its properties).
    bool GiveBackUnprotectedFiles(long id, FilesPool& pool, Protocol::TrackParameters& out);

  private:
    DirectoryHandler& directories_;
    LoopRecordingFileManagers& managers_;
    const tav::mr::logging::Logger& logger_;
};
