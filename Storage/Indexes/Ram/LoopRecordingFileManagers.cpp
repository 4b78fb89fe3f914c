#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"

LoopRecordingFileManagers::LoopRecordingFileManagers(IChunkProtectionFactory& factory)
    : protectionFactory_(factory),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingFileManagers")) {}

LoopRecordingFileManagers::~LoopRecordingFileManagers() {
    MR_LOG(logger_, 30, "Deleting the managers...");
    managers_.clear();
    MR_LOG(logger_, 30, "Deleting the managers...done");
}

void LoopRecordingFileManagers::SetDBTrackDirectory(const std::string& directory) {
    Moreld::Tools::MutexLock lock(mutex_);
    dbTrackDirectory_ = directory;
    MR_LOG(logger_, 30, "Tracks database directory is " << directory);
}

void LoopRecordingFileManagers::SetTrackDirectory(const std::string& directory) {
    Moreld::Tools::MutexLock lock(mutex_);
    trackDirectory_ = directory;
    MR_LOG(logger_, 30, "Track directories are under " << directory);
}

LoopRecordingFileManager* LoopRecordingFileManagers::GetManager(long id) {
    Moreld::Tools::MutexLock lock(mutex_);
    auto it = managers_.find(id);
    if (it != managers_.end())
        return it->second.get();

    MR_LOG(logger_, 30, "T" << id << ": Creating the LoopRecordingFileManager...");
    auto manager = std::make_unique<LoopRecordingFileManager>(id);
    manager->OpenDatabase(dbTrackDirectory_);
    // An active database means the track was being written when the process
    // stopped: check its newest files before anyone reads them.
    if (manager->IsActive())
        manager->HandlePowerFailure(trackDirectory_);
    manager->SetChunkProtectionFactory(&protectionFactory_);
    return managers_.emplace(id, std::move(manager)).first->second.get();
}

bool LoopRecordingFileManagers::Exists(long id) const {
    Moreld::Tools::MutexLock lock(mutex_);
    return managers_.count(id) != 0;
}

void LoopRecordingFileManagers::Destroy(long id) {
    Moreld::Tools::MutexLock lock(mutex_);
    auto it = managers_.find(id);
    if (it == managers_.end())
        return;
    MR_LOG(logger_, 30, "T" << id << ": Destroying manager...");
    managers_.erase(it);
}

std::vector<long> LoopRecordingFileManagers::GetTrackIds() const {
    Moreld::Tools::MutexLock lock(mutex_);
    std::vector<long> ids;
    ids.reserve(managers_.size());
    for (const auto& [id, manager] : managers_)
        ids.push_back(id);
    return ids;
}
