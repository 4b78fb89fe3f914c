#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Tools/Mutex.h"
#include "Storage/Indexes/Ram/IChunkProtectionFactory.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

// The registry of every track's index. Owns one LoopRecordingFileManager per
// track id and creates it on first demand, loaded from the track's database
// (and repaired against its files when the database says it was active).
//
// Thread safety: every operation is safe from any thread; one mutex guards the
// map, and a manager is created and loaded while it is held, so two callers
// asking for the same new track get the same, fully loaded manager.
class LoopRecordingFileManagers {
  public:
    // `factory` is not owned and must outlive the registry.
    explicit LoopRecordingFileManagers(IChunkProtectionFactory& factory);
    virtual ~LoopRecordingFileManagers();
    LoopRecordingFileManagers(const LoopRecordingFileManagers&) = delete;
    LoopRecordingFileManagers& operator=(const LoopRecordingFileManagers&) = delete;

    // Where the per-track databases live.
    void SetDBTrackDirectory(const std::string& directory);
    // Root of the numbered track directories.
    void SetTrackDirectory(const std::string& directory);

    // The track's manager, created and loaded if needed; never null, owned by
    // the registry until Destroy. Loading errors propagate and leave no entry.
    LoopRecordingFileManager* GetManager(long id);
    bool Exists(long id) const;
    void Destroy(long id);
    std::vector<long> GetTrackIds() const;

  private:
    IChunkProtectionFactory& protectionFactory_;
    mutable Moreld::Tools::Mutex mutex_;
    std::map<long, std::unique_ptr<LoopRecordingFileManager>> managers_ GUARDED_BY(mutex_);
    std::string dbTrackDirectory_ GUARDED_BY(mutex_);
    std::string trackDirectory_ GUARDED_BY(mutex_);
    tav::mr::logging::Logger logger_;
};
