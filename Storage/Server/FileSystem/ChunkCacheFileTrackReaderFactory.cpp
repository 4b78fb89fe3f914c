#include "Storage/Server/FileSystem/ChunkCacheFileTrackReaderFactory.h"

#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"

ChunkCacheFileTrackReaderFactory::ChunkCacheFileTrackReaderFactory(
    LoopRecordingFileManagers& managers, ChunkCacheManager& caches, DirectoryHandler& directories,
    Monitoring& monitoring, OpenChunkFilesRegistry& openFiles, std::string description)
    : factory_{managers, caches, directories, &monitoring, std::move(description)},
      openFiles_(openFiles) {}

MoreldStorageApi::ITrackReader* ChunkCacheFileTrackReaderFactory::Create(const long& trackId) {
    std::unique_ptr<ChunkCacheTrackReader> reader = factory_.Create<ChunkCacheTrackReader>(
        trackId, WorkerType::Reader, "ChunkCacheFileTrackReaderFactory", "reader");
    reader->ShareOpenFiles(openFiles_.For(trackId));
    return reader.release();
}
