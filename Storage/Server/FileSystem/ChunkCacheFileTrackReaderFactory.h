#pragma once

#include <string>

#include "Platform/Services/ITrackReaderFactory.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Server/FileSystem/OpenChunkFilesRegistry.h"
#include "Storage/Server/FileSystem/WorkerFactory.h"
#include "Storage/Server/Monitoring.h"

// Creates the host's track readers, one per client request; the readers of
// one track share its open chunk files. Refers to the storage's registries,
// monitoring and open files (owned by the service factory, which outlives
// it). Safe from any thread.
class ChunkCacheFileTrackReaderFactory : public MoreldStorageApi::ITrackReaderFactory {
  public:
    ChunkCacheFileTrackReaderFactory(LoopRecordingFileManagers& managers, ChunkCacheManager& caches,
                                     DirectoryHandler& directories, Monitoring& monitoring,
                                     OpenChunkFilesRegistry& openFiles, std::string description);

    // A new reader on an existing track, registered in the monitoring; the
    // caller owns it. Throws std::runtime_error for an unknown track.
    MoreldStorageApi::ITrackReader* Create(const long& trackId) override;

  private:
    WorkerFactory factory_;
    OpenChunkFilesRegistry& openFiles_;
};
