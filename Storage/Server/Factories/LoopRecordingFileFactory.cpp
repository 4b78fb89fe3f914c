#include "Storage/Server/Factories/LoopRecordingFileFactory.h"

#include <boost/filesystem.hpp>

#include <stdexcept>
#include <system_error>

#include "Platform/File/Env.h"
#include "Platform/Logging/LoggingManager.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "Storage/Server/Factories/StoreReconciliation.h"
#include "Storage/Server/FileSystem/ChunkCacheFileTrackReaderFactory.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriterFactory.h"
#include "Storage/Server/FileSystem/LoopRecordingTrackRetention.h"
#include "Storage/Server/FileSystem/LoopRecordingTrackStorage.h"
#include "Storage/Server/FileSystem/LoopRecordingTrackTimeline.h"

LoopRecordingFileFactory::LoopRecordingFileFactory(const FactoryParameters& parameters)
    : trackDirectory_(parameters.trackDirectory),
      dbDirectory_(parameters.dbDirectory),
      poolDirectory_(parameters.poolDirectory),
      monitoring_(std::make_unique<Monitoring>()),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingFactory")) {
    LockStore();
    MR_LOG(logger_, 30,
           "Track directories on " << trackDirectory_ << ", db directory on " << dbDirectory_
                                   << ", pool directory on " << poolDirectory_);
    directoryHandler_ = std::make_unique<DirectoryHandler>(trackDirectory_);
    MR_LOG(logger_, 30, "Using NoChunkProtectionFactory");
    protectionFactory_ = std::make_unique<NoChunkProtectionFactory>();
    managers_ = std::make_unique<LoopRecordingFileManagers>(*protectionFactory_);
    managers_->SetDBTrackDirectory(dbDirectory_);
    managers_->SetTrackDirectory(trackDirectory_);
    // Every track is in RAM, and repaired, before any request.
    for (long id : directoryHandler_->GetIds())
        managers_->GetManager(id);
    chunkCacheManager_ = std::make_unique<ChunkCacheManager>();
    trackStorage_ =
        std::make_unique<LoopRecordingCommonTrackStorage>(*directoryHandler_, *managers_);
    if (parameters.clock)
        trackStorage_->SetClock(parameters.clock);
    trackStorage_->OpenPropertiesDatabase(dbDirectory_);
    trackStorage_->OpenProtectionDatabase(dbDirectory_);
    OpenPool();
    StoreReconciliation(*pool_, *directoryHandler_, *managers_, poolDirectory_).Run();
    trackStorage_->AddPool(pool_);
    trackStorage_->SetMonitoring(monitoring_.get());
    const unsigned long remaining = pool_->GetRemainingSpace();
    MR_LOG(logger_, 30, "Available size is " << remaining / 1000000 << "MB (" << remaining << "B)");
    StartUpkeep(parameters);
}

LoopRecordingFileFactory::~LoopRecordingFileFactory() {
    upkeepThread_.reset();
    trackStorage_.reset();
    pool_.reset();
    chunkCacheManager_.reset();
    managers_.reset();
    protectionFactory_.reset();
    directoryHandler_.reset();
    monitoring_.reset();
    lock_.reset();
}

void LoopRecordingFileFactory::StartUpkeep(const FactoryParameters& parameters) {
    // After the repairs and the protections (the expired ones were lifted as
    // their database opened): a protected block never goes, and a store
    // opens with nothing older than its tracks keep.
    trackStorage_->SetRetentionClock(parameters.clock);
    PurgeExpiredContent("at start-up");
    upkeepThread_ = std::make_unique<Moreld::Tools::PeriodicThread>(
        parameters.upkeepInterval, [this] { Upkeep("periodically"); });
}

void LoopRecordingFileFactory::Upkeep(const char* when) {
    LiftExpiredProtections(when);
    PurgeExpiredContent(when);
}

void LoopRecordingFileFactory::LiftExpiredProtections(const char* when) {
    try {
        trackStorage_->LiftExpiredProtections();
    } catch (const std::exception& e) {
        // A failing database now may work at the next run: keep going.
        MR_LOG(logger_, 50, "Lifting expired protections " << when << " failed: " << e.what());
    }
}

void LoopRecordingFileFactory::PurgeExpiredContent(const char* when) {
    try {
        const size_t files = trackStorage_->PurgeExpiredContent();
        if (files != 0) {
            MR_LOG(logger_, 30,
                   "Retention " << when << ": " << files << " files of expired content given back");
        }
    } catch (const std::exception& e) {
        // The next run tries again; the store stays as the failed purge left
        // it, which is consistent (each track's purge is one transaction).
        MR_LOG(logger_, 50, "Retention " << when << " failed: " << e.what());
    }
}

void LoopRecordingFileFactory::LockStore() {
    const std::string path = (boost::filesystem::path(dbDirectory_) / "LOCK").string();
    long holder = 0;
    std::error_code error;
    lock_ = Moreld::File::Env::Get().LockFile(path, holder, error);
    if (lock_) {
        return;
    }
    // Two processes on one store would lend the same files to two tracks.
    const std::string message =
        holder != 0 || error == std::errc::operation_would_block
            ? "Store " + dbDirectory_ + " is already open by process " + std::to_string(holder)
            : "Cannot lock store " + dbDirectory_ + " with " + path + ": " + error.message();
    MR_LOG(logger_, 50, message);
    throw std::runtime_error(message);
}

void LoopRecordingFileFactory::OpenPool() {
    pool_ = std::make_shared<FilesPool>();
    const std::string dbFile = pool_->GetDBFile(dbDirectory_);
    if (!boost::filesystem::exists(dbFile)) {
        MR_LOG(logger_, 30,
               "Pool DB file " << dbFile
                               << " does not exist, which means you're probably "
                                  "launching the storage for the first time. So we "
                                  "will link the pool with the pool directory "
                                  "specified: "
                               << poolDirectory_);
        LinkPool(false);
        return;
    }
    std::vector<ChunkFile> interrupted = pool_->OpenDatabase(dbDirectory_);
    if (!pool_->IsLinked()) {
        // The first start stopped before its link completed: no file can
        // have been lent yet, so linking again loses nothing.
        MR_LOG(logger_, 40,
               "Pool DB file " << dbFile
                               << " was never linked to a pool directory: linking it with "
                               << poolDirectory_);
        LinkPool(true);
        return;
    }
    if (!interrupted.empty())
        HandlePowerFailure(interrupted);
}

void LoopRecordingFileFactory::LinkPool(bool opened) {
    if (!opened)
        pool_->OpenDatabase(dbDirectory_);
    if (pool_->GetTrackDirectory().empty())
        pool_->SetTrackDirectory(trackDirectory_);
    pool_->LinkToDirectory(poolDirectory_);
}

MoreldStorageApi::Service* LoopRecordingFileFactory::Construct(
    const Moreld::Services::ExternalData& data) {
    if (data.cacheMemoryBytes != 0)
        UseCacheBudget(data.cacheMemoryBytes);
    auto service = std::make_unique<MoreldStorageApi::Service>();
    service->SetTrackStorage(std::make_unique<LoopRecordingTrackStorage>(*trackStorage_));
    service->SetTrackWriterFactory(std::make_unique<LoopRecordingFileTrackWriterFactory>(
        *managers_, *chunkCacheManager_, *directoryHandler_, *monitoring_, data.clientDescription));
    service->SetTrackReaderFactory(std::make_unique<ChunkCacheFileTrackReaderFactory>(
        *managers_, *chunkCacheManager_, *directoryHandler_, *monitoring_, openChunkFiles_,
        data.clientDescription));
    service->SetTrackRetention(std::make_unique<LoopRecordingTrackRetention>(*trackStorage_));
    service->SetTrackTimeline(std::make_unique<LoopRecordingTrackTimeline>(
        *managers_, *chunkCacheManager_, *monitoring_));
    return service.release();
}

void LoopRecordingFileFactory::UseCacheBudget(unsigned long bytes) {
    CacheBudget& budget = chunkCacheManager_->GetBudget();
    if (budget.GetLimit() == bytes)
        return;
    budget.SetLimit(bytes);
    MR_LOG(logger_, 30,
           "The chunks cached by all writers share " << bytes / 1000000 << "MB (" << bytes << "B)");
}

void LoopRecordingFileFactory::HandlePowerFailure(const std::vector<ChunkFile>& files) {
    MR_LOG(logger_, 30, "Power failure detected while moving files...");
    // All files of one interrupted move belong to one track and go one way:
    // the status names the track, the directory number the direction.
    const long track = files.at(0).GetFifthValue();
    const bool intoTrack = files.at(0).GetDirectoryNumber() != 0;
    LoopRecordingFileManager& manager = *managers_->GetManager(track);
    // The manager knows its files as belonging to the track, with no status.
    std::vector<ChunkFile> owned = files;
    for (ChunkFile& file : owned) {
        file.SetDirectoryNumber(track);
        file.SetFifthValue(0);
    }
    if (intoTrack) {
        FinishInsertion(track, manager, owned);
    } else {
        FinishRemoval(track, manager, owned);
    }
    pool_->CloseMoveFilesTransaction();
}

void LoopRecordingFileFactory::FinishInsertion(long track, LoopRecordingFileManager& manager,
                                               const std::vector<ChunkFile>& files) {
    MR_LOG(logger_, 30,
           "T" << track << ": " << files.size() << " files still need to be inserted to manager");
    // The move may have reached the manager before the power failed.
    if (!manager.HasFile(files.front()))
        manager.InsertFiles(files);
}

void LoopRecordingFileFactory::FinishRemoval(long track, LoopRecordingFileManager& manager,
                                             const std::vector<ChunkFile>& files) {
    MR_LOG(logger_, 30,
           "T" << track << ": " << files.size() << " files still need to be removed from manager");
    if (!manager.HasFile(files.front())) {
        MR_LOG(logger_, 20, "T" << track << ": Manager has the file " << files.front());
        return;
    }
    if (!manager.ForceRemoveFiles(files)) {
        MR_LOG(logger_, 40,
               "T" << track << ": some files to remove were not present in the manager");
    }
    manager.RemoveFiles(files);
    if (manager.GetMaxTrackSize() != 0)
        return;
    // The track was being deleted when the power failed: finish the deletion.
    directoryHandler_->Delete(track);
    manager.Clear();
    manager.DestroyDatabase();
    managers_->Destroy(track);
    trackStorage_->RemoveAllProperties(track);
    MR_LOG(logger_, 30, "T" << track << ": Destroyed during recovery procedure.");
}
