#include "Storage/Server/FileSystem/ChunkCacheFileTrackReaderFactory.h"

#include <memory>
#include <mutex>
#include <stdexcept>

#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/WorkerThreadId.h"

ChunkCacheFileTrackReaderFactory::ChunkCacheFileTrackReaderFactory(
    LoopRecordingFileManagers& managers, ChunkCacheManager& caches, DirectoryHandler& directories,
    Monitoring& monitoring, std::string description)
    : managers_(managers),
      caches_(caches),
      directories_(directories),
      monitoring_(&monitoring),
      description_(std::move(description)) {}

MoreldStorageApi::ITrackReader* ChunkCacheFileTrackReaderFactory::Create(const long& trackId) {
    if (monitoring_ == nullptr) {
        throw std::runtime_error("Monitoring not set for ChunkCacheFileTrackReaderFactory");
    }
    std::lock_guard<std::mutex> track(monitoring_->GetMutex(trackId));
    if (!managers_.Exists(trackId)) {
        throw std::runtime_error("Cannot create a reader, track " + std::to_string(trackId) +
                                 " has not been created");
    }
    LoopRecordingFileManager* manager = managers_.GetManager(trackId);
    ThreadedChunkCache* cache = caches_.GetChunkCache(trackId);
    auto reader = std::make_unique<ChunkCacheTrackReader>(trackId, *manager, *cache);
    const long workerId = reinterpret_cast<long>(reader.get());
    monitoring_->Add(Monitoring::WorkerInfo(WorkerType::Reader, workerId, CurrentThreadId(),
                                            trackId, description_));
    reader->SetMonitoring(monitoring_, workerId);
    reader->SetTrackDirectory(directories_.GetRootDirectory());
    return reader.release();
}
