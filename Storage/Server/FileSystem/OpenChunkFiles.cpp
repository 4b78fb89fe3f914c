#include "Storage/Server/FileSystem/OpenChunkFiles.h"

#include <algorithm>

OpenChunkFiles::OpenChunkFiles(size_t capacity) : capacity_(std::max<size_t>(capacity, 1)) {
    entries_.reserve(capacity_);
}

Moreld::File::DataChunkFileReader& OpenChunkFiles::Get(const std::string& fileName, bool& opened) {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& entry) { return entry.fileName == fileName; });
    opened = found == entries_.end();
    if (opened) {
        // Opened before anything is closed: a failed open keeps what is kept.
        auto reader = std::make_unique<Moreld::File::DataChunkFileReader>(fileName);
        if (entries_.size() == capacity_) {
            entries_.pop_back();
        }
        entries_.push_back(Entry{fileName, std::move(reader)});
        found = entries_.end() - 1;
    }
    std::rotate(entries_.begin(), found, found + 1);
    return *entries_.front().reader;
}

void OpenChunkFiles::Forget(const std::string& fileName) {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& entry) { return entry.fileName == fileName; });
    if (found != entries_.end()) {
        entries_.erase(found);
    }
}
