#include "Storage/Server/FileSystem/OpenChunkFilesRegistry.h"

#include "Platform/Tools/MutexLock.h"

std::shared_ptr<OpenChunkFiles> OpenChunkFilesRegistry::For(long trackId) {
    Moreld::Tools::MutexLock lock(mutex_);
    std::weak_ptr<OpenChunkFiles>& entry = tracks_[trackId];
    std::shared_ptr<OpenChunkFiles> files = entry.lock();
    if (!files) {
        Prune();
        files = std::make_shared<OpenChunkFiles>();
        tracks_[trackId] = files;  // Prune may have dropped `entry`
    }
    return files;
}

void OpenChunkFilesRegistry::Prune() {
    for (auto it = tracks_.begin(); it != tracks_.end();) {
        it = it->second.expired() ? tracks_.erase(it) : std::next(it);
    }
}
