#pragma once

#include <string>

#include "Platform/Services/ITrackWriterFactory.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Server/FileSystem/WorkerFactory.h"
#include "Storage/Server/Monitoring.h"

// Creates the host's track writers, one per client request. Refers to the
// storage's registries and monitoring (owned by the service factory, which
// outlives it). Safe from any thread: creation is serialised per track by the
// track's monitoring mutex.
class LoopRecordingFileTrackWriterFactory : public MoreldStorageApi::ITrackWriterFactory {
  public:
    LoopRecordingFileTrackWriterFactory(LoopRecordingFileManagers& managers,
                                        ChunkCacheManager& caches, DirectoryHandler& directories,
                                        Monitoring& monitoring, std::string description);

    // A new writer on an existing track, registered in the monitoring; the
    // caller owns it. Throws std::runtime_error for an unknown track or when
    // the track already has a writer.
    MoreldStorageApi::ITrackWriter* Create(const long& trackId) override;

  private:
    WorkerFactory factory_;
};
