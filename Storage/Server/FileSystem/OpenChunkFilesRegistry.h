#pragma once

#include <map>
#include <memory>

#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/ThreadAnnotations.h"
#include "Storage/Server/FileSystem/OpenChunkFiles.h"

// Hands the readers of one track the same OpenChunkFiles, so that the track's
// open files are bounded per track, not per reader, and shared. The files of
// a track live as long as one of its readers does: the registry only keeps
// weak references.
//
// Thread-safe.
class OpenChunkFilesRegistry {
  public:
    OpenChunkFilesRegistry() = default;
    OpenChunkFilesRegistry(const OpenChunkFilesRegistry&) = delete;
    OpenChunkFilesRegistry& operator=(const OpenChunkFilesRegistry&) = delete;

    // The open files of `trackId`, made when none of its readers is alive.
    std::shared_ptr<OpenChunkFiles> For(long trackId);

  private:
    // Drops the entries of tracks that no reader holds any more.
    void Prune() REQUIRES(mutex_);

    Moreld::Tools::Mutex mutex_;
    std::map<long, std::weak_ptr<OpenChunkFiles>> tracks_ GUARDED_BY(mutex_);
};
