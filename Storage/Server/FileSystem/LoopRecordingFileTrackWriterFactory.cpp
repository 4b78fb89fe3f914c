#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriterFactory.h"

#include <memory>
#include <mutex>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "Storage/Server/WorkerThreadId.h"

LoopRecordingFileTrackWriterFactory::LoopRecordingFileTrackWriterFactory(
    LoopRecordingFileManagers& managers, ChunkCacheManager& caches, DirectoryHandler& directories,
    Monitoring& monitoring, std::string description)
    : managers_(managers),
      caches_(caches),
      directories_(directories),
      monitoring_(&monitoring),
      description_(std::move(description)),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingFileTrackWriterFactory")) {}

MoreldStorageApi::ITrackWriter* LoopRecordingFileTrackWriterFactory::Create(const long& trackId) {
    if (monitoring_ == nullptr) {
        throw std::runtime_error("Monitoring not set for LoopRecordingFileTrackWriterFactory");
    }
    std::lock_guard<std::mutex> track(monitoring_->GetMutex(trackId));
    if (!managers_.Exists(trackId)) {
        throw std::runtime_error("Cannot create a writer, track " + std::to_string(trackId) +
                                 " has not been created");
    }
    LoopRecordingFileManager* manager = managers_.GetManager(trackId);
    ThreadedChunkCache* cache = caches_.GetChunkCache(trackId);
    auto writer = std::make_unique<LoopRecordingFileTrackWriter>(trackId, *manager, *cache);
    const long workerId = reinterpret_cast<long>(writer.get());
    monitoring_->Add(Monitoring::WorkerInfo(WorkerType::Writer, workerId, CurrentThreadId(),
                                            trackId, description_));
    writer->SetMonitoring(monitoring_, workerId);
    writer->SetTrackDirectory(directories_.GetRootDirectory());
    return writer.release();
}
