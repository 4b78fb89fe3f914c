#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/MutexLock.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Server/Monitoring.h"
#include "Storage/Server/WorkerThreadId.h"

// What the writer and reader factories share: a worker is created on an
// existing track under the track's monitoring mutex, registered in the
// monitoring under its address, and pointed at the tracks root.
//
// `Worker` is constructed from (track id, manager, cache) and offers
// SetMonitoring(Monitoring*, long) and SetTrackDirectory(const std::string&).
struct WorkerFactory {
    LoopRecordingFileManagers& managers;
    ChunkCacheManager& caches;
    DirectoryHandler& directories;
    Monitoring* monitoring;
    std::string description;

    // `factoryName` and `workerKind` ("writer", "reader") word the errors.
    template <typename Worker>
    std::unique_ptr<Worker> Create(long trackId, WorkerType type, const std::string& factoryName,
                                   const std::string& workerKind) const {
        if (monitoring == nullptr) {
            throw std::runtime_error("Monitoring not set for " + factoryName);
        }
        Moreld::Tools::MutexLock track(monitoring->GetMutex(trackId));
        if (!managers.Exists(trackId)) {
            throw MoreldStorageApi::NotFoundError("Cannot create a " + workerKind + ", track " +
                                                  std::to_string(trackId) +
                                                  " has not been created");
        }
        auto worker = std::make_unique<Worker>(trackId, *managers.GetManager(trackId),
                                               *caches.GetChunkCache(trackId));
        const long workerId = reinterpret_cast<long>(worker.get());
        monitoring->Add(
            Monitoring::WorkerInfo(type, workerId, CurrentThreadId(), trackId, description));
        worker->SetMonitoring(monitoring, workerId);
        worker->SetTrackDirectory(directories.GetRootDirectory());
        return worker;
    }
};
