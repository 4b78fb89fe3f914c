#include "Storage/Server/FileSystem/OpenChunkFiles.h"

#include <algorithm>

#include "Platform/Tools/MutexLock.h"

using Moreld::File::SharedChunkFile;

OpenChunkFiles::OpenChunkFiles(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {
    Moreld::Tools::MutexLock lock(mutex_);
    entries_.reserve(capacity_);
}

std::shared_ptr<SharedChunkFile> OpenChunkFiles::Get(const ChunkFile& chunkFile,
                                                     const std::string& root, bool& opened) {
    const long number = chunkFile.GetFileNumber();
    {
        Moreld::Tools::MutexLock lock(mutex_);
        if (std::shared_ptr<SharedChunkFile> kept = Find(number)) {
            opened = false;
            return kept;
        }
    }
    // Opened before anything is let go: a failed open keeps what is kept.
    auto file = std::make_shared<SharedChunkFile>(chunkFile.GetAbsoluteFileName(root, false));
    std::shared_ptr<SharedChunkFile> evicted;  // closed after the lock is released
    Moreld::Tools::MutexLock lock(mutex_);
    std::shared_ptr<SharedChunkFile> kept = Keep(number, std::move(file), evicted);
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

std::shared_ptr<SharedChunkFile> OpenChunkFiles::Find(long fileNumber) {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& entry) { return entry.fileNumber == fileNumber; });
    if (found == entries_.end()) {
        return nullptr;
    }
    std::rotate(entries_.begin(), found, found + 1);
    return entries_.front().file;
}

std::shared_ptr<SharedChunkFile> OpenChunkFiles::Keep(long fileNumber,
                                                      std::shared_ptr<SharedChunkFile> file,
                                                      std::shared_ptr<SharedChunkFile>& evicted) {
    if (std::shared_ptr<SharedChunkFile> kept = Find(fileNumber)) {
        return kept;  // ours closes as it goes out of scope
    }
    if (entries_.size() == capacity_) {
        evicted = std::move(entries_.back().file);
        entries_.pop_back();
    }
    entries_.insert(entries_.begin(), Entry{fileNumber, std::move(file)});
    return entries_.front().file;
}
