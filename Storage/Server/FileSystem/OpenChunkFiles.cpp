#include "Storage/Server/FileSystem/OpenChunkFiles.h"

#include <algorithm>

#include "Platform/Tools/MutexLock.h"

using Moreld::File::SharedChunkFile;

OpenChunkFiles::OpenChunkFiles(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {
    Moreld::Tools::MutexLock lock(mutex_);
    entries_.reserve(capacity_);
}

std::shared_ptr<SharedChunkFile> OpenChunkFiles::Get(const std::string& fileName, bool& opened) {
    {
        Moreld::Tools::MutexLock lock(mutex_);
        if (std::shared_ptr<SharedChunkFile> kept = Find(fileName)) {
            opened = false;
            return kept;
        }
    }
    // Opened before anything is let go: a failed open keeps what is kept.
    auto file = std::make_shared<SharedChunkFile>(fileName);
    std::shared_ptr<SharedChunkFile> evicted;  // closed after the lock is released
    Moreld::Tools::MutexLock lock(mutex_);
    std::shared_ptr<SharedChunkFile> kept = Keep(fileName, std::move(file), evicted);
    opened = true;
    return kept;
}

void OpenChunkFiles::Forget(const SharedChunkFile& file) {
    Moreld::Tools::MutexLock lock(mutex_);
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& entry) { return entry.file.get() == &file; });
    if (found != entries_.end()) {
        entries_.erase(found);
    }
}

size_t OpenChunkFiles::Size() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return entries_.size();
}

std::shared_ptr<SharedChunkFile> OpenChunkFiles::Find(const std::string& fileName) {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& entry) { return entry.fileName == fileName; });
    if (found == entries_.end()) {
        return nullptr;
    }
    std::rotate(entries_.begin(), found, found + 1);
    return entries_.front().file;
}

std::shared_ptr<SharedChunkFile> OpenChunkFiles::Keep(const std::string& fileName,
                                                      std::shared_ptr<SharedChunkFile> file,
                                                      std::shared_ptr<SharedChunkFile>& evicted) {
    if (std::shared_ptr<SharedChunkFile> kept = Find(fileName)) {
        return kept;  // ours closes as it goes out of scope
    }
    if (entries_.size() == capacity_) {
        evicted = std::move(entries_.back().file);
        entries_.pop_back();
    }
    entries_.insert(entries_.begin(), Entry{fileName, std::move(file)});
    return entries_.front().file;
}
