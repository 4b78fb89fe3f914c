#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/File/FileLock.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Services/ExternalData.h"
#include "Platform/Services/IServiceHandlerFactory.h"
#include "Platform/Services/Service.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/PeriodicThread.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/File/FilesPool.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/IChunkProtectionFactory.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"
#include "Storage/Server/FileSystem/OpenChunkFilesRegistry.h"
#include "Storage/Server/Monitoring.h"

// The entry of the library. The constructor builds the whole storage from
// its three directories — track directories, every track's index (repaired
// after an unclean stop), caches, the track storage with its protections and
// properties, and the files pool (linked to the pool directory at a first
// start, an interrupted move finished at a restart) — and Construct hands
// the host its three services.
//
// One store is open in one factory at a time: the constructor first takes
// the lock file "LOCK" in the db directory (flock, released with the
// factory or when its process dies), and fails at once when another holds
// it.
//
// Upkeep: expired protections are lifted and content that tracks' maximum
// ages no longer keep is given back at the end of start-up, then by a
// background thread every `upkeepInterval`, stopped first at destruction.
//
// Owns everything it builds; the objects Construct returns refer to it, so
// the factory must outlive them. Destruction runs in the reverse order of
// construction. Construct is safe from any thread.
class LoopRecordingFileFactory : public Moreld::Services::IServiceHandlerFactory {
  public:
    struct FactoryParameters {
        std::string trackDirectory;  // root of the numbered track directories
        std::string dbDirectory;     // pool.db, protections.db, properties.db, <track>.db
        std::string poolDirectory;   // the preallocated free files
        // "Now" for protection expiries and retention by age (empty: the wall
        // clock), and how often the store lifts expired protections and then
        // gives back expired content while it is open; both also happen when
        // it opens.
        std::function<Moreld::Time::TimePoint()> clock = {};
        std::chrono::milliseconds upkeepInterval = std::chrono::minutes(1);
    };

    // Builds everything; any failure leaves the constructor (what was built
    // is destroyed) and the host gets no factory. A store already open
    // elsewhere is refused with "Store <db directory> is already open by
    // process <pid>".
    explicit LoopRecordingFileFactory(const FactoryParameters& parameters);
    ~LoopRecordingFileFactory() override;

    // A new service (owned by the caller) with the track storage, the writer
    // factory and the reader factory; `data.clientDescription` names the
    // client in the workers' monitoring. A non-zero `data.cacheMemoryBytes`
    // becomes the budget that the cached chunks of all tracks share (the
    // last one given wins); 0 leaves the budget as it is (none at first).
    MoreldStorageApi::Service* Construct(const Moreld::Services::ExternalData& data) override;

    // The shared cache's bytes in use, its limit (0: none) and the written
    // chunks it dropped to stay within it.
    CacheBudget::Usage GetCacheUsage() const { return chunkCacheManager_->GetBudget().GetUsage(); }

    LoopRecordingCommonTrackStorage& GetTrackStorage() { return *trackStorage_; }
    LoopRecordingFileManagers& GetManagers() { return *managers_; }
    std::shared_ptr<FilesPool> GetPool() { return pool_; }
    Monitoring& GetMonitoring() { return *monitoring_; }

    // Finishes a move between the pool and a track that a power failure
    // interrupted; `files` are the pool's in-flight files.
    void HandlePowerFailure(const std::vector<ChunkFile>& files);

  private:
    void LockStore();
    // Upkeep: lifts expired protections, then gives back content older
    // than its track's maximum age (after the protections, so a protection
    // lifted now frees its blocks at once). Runs at start-up and then on
    // a thread every upkeep interval.
    void StartUpkeep(const FactoryParameters& parameters);
    void Upkeep(const char* when);
    void LiftExpiredProtections(const char* when);
    void PurgeExpiredContent(const char* when);
    void UseCacheBudget(unsigned long bytes);
    void OpenPool();
    // First start, or a restart after a first start that did not complete.
    void LinkPool(bool opened);
    void FinishInsertion(long track, LoopRecordingFileManager& manager,
                         const std::vector<ChunkFile>& files);
    void FinishRemoval(long track, LoopRecordingFileManager& manager,
                       const std::vector<ChunkFile>& files);

    const std::string trackDirectory_;
    const std::string dbDirectory_;
    const std::string poolDirectory_;
    // Declared in reverse order of destruction.
    std::unique_ptr<Moreld::File::FileLock> lock_;
    std::unique_ptr<Monitoring> monitoring_;
    std::unique_ptr<DirectoryHandler> directoryHandler_;
    std::unique_ptr<IChunkProtectionFactory> protectionFactory_;
    std::unique_ptr<LoopRecordingFileManagers> managers_;
    std::unique_ptr<ChunkCacheManager> chunkCacheManager_;
    std::shared_ptr<FilesPool> pool_;
    std::unique_ptr<LoopRecordingCommonTrackStorage> trackStorage_;
    std::unique_ptr<Moreld::Tools::PeriodicThread> upkeepThread_;
    // What the readers of each track share, whichever service made them.
    OpenChunkFilesRegistry openChunkFiles_;
    tav::mr::logging::Logger logger_;
};
