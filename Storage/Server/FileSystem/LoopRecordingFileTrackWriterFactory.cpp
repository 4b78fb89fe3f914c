#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriterFactory.h"

#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"

LoopRecordingFileTrackWriterFactory::LoopRecordingFileTrackWriterFactory(
    LoopRecordingFileManagers& managers, ChunkCacheManager& caches, DirectoryHandler& directories,
    Monitoring& monitoring, std::string description)
    : factory_{managers, caches, directories, &monitoring, std::move(description)} {}

MoreldStorageApi::ITrackWriter* LoopRecordingFileTrackWriterFactory::Create(const long& trackId) {
    return factory_
        .Create<LoopRecordingFileTrackWriter>(trackId, WorkerType::Writer,
                                              "LoopRecordingFileTrackWriterFactory", "writer")
        .release();
}
