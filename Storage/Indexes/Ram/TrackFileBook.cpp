#include "Storage/Indexes/Ram/TrackFileBook.h"

#include <stdexcept>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/StrCat.h"

using Moreld::File::ChunkFileHeader;
using Moreld::Tools::StrCat;

TrackFileBook::FileChoice TrackFileBook::ChooseForNewBlock(const TimePoint& tp, unsigned long size,
                                                           bool& loopRecording) {
    FileChoice choice;
    if (!emptyFiles_.empty()) {
        choice.file = emptyFiles_.front();
        choice.file.SetFromEmptyFile(true);
        loopRecording = false;
        CheckRoom(choice.file, size);
        return choice;
    }
    if (recyclableKeys_.empty()) {
        std::string msg =
            StrCat("T", trackId_, ": No more recyclable file available to store chunk at ", tp,
                   " of size ", size, ". Grow track or unprotect some content");
        MR_LOG(logger_, 40, msg);
        throw MoreldStorageApi::OutOfSpaceError(msg);
    }
    const TimePoint key = *recyclableKeys_.begin();
    auto it = blocks_.find(key);
    if (it == blocks_.end()) {
        std::string msg = StrCat("T", trackId_, ": Could not find recycled block timepoint ", key,
                                 " to store chunk at ", tp);
        MR_LOG(logger_, 50, msg);
        throw std::runtime_error(msg);
    }
    choice.file = it->second.GetChunkFile();
    choice.file.SetFromEmptyFile(false);
    choice.recycled = true;
    choice.recycledKey = key;
    if (!loopRecording) {
        loopRecording = true;
        MR_LOG(
            logger_, 30,
            "T" << trackId_ << ": is now in LoopRecording at " << tp << " on file " << choice.file);
    }
    CheckRoom(choice.file, size);
    return choice;
}

ChunkFile TrackFileBook::FirstEmptyFile(const TimePoint& tp, unsigned long size,
                                        bool& loopRecording) {
    if (emptyFiles_.empty()) {
        MR_LOG(logger_, 50,
               "T" << trackId_ << ": no block and no empty files to store chunk at " << tp
                   << ". recyclableKeys has " << recyclableKeys_.size() << " elements");
        throw MoreldStorageApi::StoreBusyError(StrCat("You must call GrowTrack to store chunks at ",
                                                      tp.ToString(), " for track ", trackId_));
    }
    ChunkFile file = emptyFiles_.front();
    file.SetFromEmptyFile(true);
    loopRecording = false;
    if (static_cast<unsigned long>(file.Size()) < size) {
        throw MoreldStorageApi::InvalidArgumentError(StrCat(
            "Empty file ", file.ToString(), " cannot hold a chunk of size ", size, " on track",
            trackId_, ". The pool must contains bigger files to store this chunk"));
    }
    return file;
}

unsigned long TrackFileBook::Release(const FileChoice& choice) {
    if (!choice.recycled) {
        emptyFiles_.pop_front();
        return 0;
    }
    auto it = blocks_.find(choice.recycledKey);
    if (it == blocks_.end()) {
        throw std::runtime_error("Block with tcIn " + choice.recycledKey.ToString() +
                                 " should belong to the map");
    }
    recyclableKeys_.erase(choice.recycledKey);
    const unsigned long blockSize = it->second.GetCurrentSize();
    MR_LOG(logger_, 10,
           "T" << trackId_ << ": Remove block at " << choice.recycledKey << " of size " << blockSize
               << " on file " << choice.file);
    Freed freed;
    DropBlock(it, freed);
    return freed.payload;
}

FileSystem::Block& TrackFileBook::OpenBlock(const TimePoint& tp, const ChunkFile& file) {
    // The newest block takes no more chunks: the room its chunks grew into
    // goes back before a new one starts growing.
    if (!blocks_.empty())
        blocks_.rbegin()->second.ShrinkToFit();
    BlockConfiguration configuration(static_cast<unsigned long>(file.Size()), 0);
    auto [it, inserted] = blocks_.try_emplace(tp, configuration);
    if (!inserted)
        it->second.Reset(configuration);
    return it->second;
}

std::vector<ChunkFile> TrackFileBook::TakeEmptyFiles(unsigned long size, Freed& freed,
                                                     const Keep& keep) {
    std::vector<ChunkFile> result;
    // A cleared file may still be written: the writer had placed a chunk in
    // it before its block went.
    for (auto it = emptyFiles_.begin(); freed.fileBytes < size && it != emptyFiles_.end();) {
        if (keep(*it)) {
            ++it;
            continue;
        }
        ChunkFile file = *it;
        it = emptyFiles_.erase(it);
        file.SetFromEmptyFile(true);
        freed.fileBytes += static_cast<unsigned long>(file.Size());
        result.push_back(file);
    }
    return result;
}

std::vector<ChunkFile> TrackFileBook::TakeRecyclableBlocks(unsigned long size, Freed& freed,
                                                           const Keep& keep) {
    std::vector<ChunkFile> result;
    auto key = recyclableKeys_.begin();
    while (freed.fileBytes < size && key != recyclableKeys_.end()) {
        auto block = blocks_.find(*key);
        if (block == blocks_.end()) {
            key = DropMissingKey(key, "remove");
            continue;
        }
        if (keep(block->second.GetChunkFile())) {
            ++key;
            continue;
        }
        // The file holds chunk data: its rows in the database are chunk rows,
        // whatever flag the block's file carried when it was opened.
        ChunkFile file = DropBlock(block, freed);
        file.SetFromEmptyFile(false);
        freed.fileBytes += static_cast<unsigned long>(file.Size());
        result.push_back(file);
        key = recyclableKeys_.erase(key);
    }
    return result;
}

std::vector<ChunkFile> TrackFileBook::EmptyRecyclableBlocks(Freed& freed) {
    std::vector<ChunkFile> cleared;
    for (auto key = recyclableKeys_.begin(); key != recyclableKeys_.end();) {
        auto block = blocks_.find(*key);
        if (block == blocks_.end()) {
            key = DropMissingKey(key, "clear");
            continue;
        }
        cleared.push_back(EmptyBlock(block, freed));
        key = recyclableKeys_.erase(key);
    }
    return cleared;
}

std::vector<ChunkFile> TrackFileBook::EmptyBlocksEndingBy(const TimePoint& cutoff, Freed& freed,
                                                          const Keep& keep) {
    std::vector<ChunkFile> purged;
    // Recyclable keys are the unprotected blocks, oldest first; blocks do
    // not overlap, so the first one ending after the cutoff ends the walk.
    for (auto key = recyclableKeys_.begin(); key != recyclableKeys_.end();) {
        auto block = blocks_.find(*key);
        if (block == blocks_.end()) {
            key = DropMissingKey(key, "purge");
            continue;
        }
        if (block->second.Empty()) {  // a block whose first chunk failed: it holds nothing
            ++key;
            continue;
        }
        if (block->second.GetTcOut() > cutoff || keep(block->second.GetChunkFile()))
            break;
        purged.push_back(EmptyBlock(block, freed));
        key = recyclableKeys_.erase(key);
    }
    return purged;
}

bool TrackFileBook::RemoveEmptyFile(const ChunkFile& file, Freed& freed) {
    for (auto it = emptyFiles_.begin(); it != emptyFiles_.end(); ++it) {
        if (*it == file) {
            freed.fileBytes += static_cast<unsigned long>(it->Size());
            emptyFiles_.erase(it);
            return true;
        }
    }
    return false;
}

bool TrackFileBook::RemoveBlockOfFile(const ChunkFile& file, Freed& freed) {
    for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
        if (!it->second.Empty() && it->second.GetChunkFile() == file) {
            freed.fileBytes += static_cast<unsigned long>(file.Size());
            recyclableKeys_.erase(it->first);
            DropBlock(it, freed);
            return true;
        }
    }
    return false;
}

void TrackFileBook::CheckRoom(const ChunkFile& file, unsigned long size) const {
    if (size > static_cast<unsigned long>(file.Size())) {
        std::string msg = StrCat("Current file ", file.ToString(), " cannot hold a chunk of size ",
                                 size, " on track", trackId_);
        MR_LOG(logger_, 50, msg);
        throw MoreldStorageApi::InvalidArgumentError(msg);
    }
}

std::set<TrackFileBook::TimePoint>::iterator TrackFileBook::DropMissingKey(
    std::set<TimePoint>::iterator key, const char* what) {
    MR_LOG(logger_, 40,
           "Could not find block to " << what << " at recyclable timepoint " << *key
                                      << " --> we remove this timepoint from the recyclable ones");
    return recyclableKeys_.erase(key);
}

ChunkFile TrackFileBook::DropBlock(Blocks::iterator block, Freed& freed) {
    freed.payload += block->second.GetCurrentSize() - ChunkFileHeader::kSize;
    ChunkFile file = block->second.GetChunkFile();
    blocks_.erase(block);
    return file;
}

ChunkFile TrackFileBook::EmptyBlock(Blocks::iterator block, Freed& freed) {
    ChunkFile file = DropBlock(block, freed);
    file.SetFromEmptyFile(true);
    emptyFiles_.push_back(file);
    return file;
}

unsigned long TrackFileBook::AddEmptyFiles(const std::vector<ChunkFile>& files) {
    unsigned long bytes = 0;
    for (ChunkFile file : files) {
        file.SetFromEmptyFile(true);
        emptyFiles_.push_back(file);
        bytes += static_cast<unsigned long>(file.Size());
    }
    return bytes;
}

void TrackFileBook::LogRemoved(size_t emptyFiles, size_t blocks, unsigned long bytes,
                               const TrackCounters& counters) const {
    if (blocks == 0) {
        MR_LOG(logger_, 30,
               "Removed " << emptyFiles << " empty files from track " << trackId_
                          << " for a total size of " << bytes << "B");
        return;
    }
    MR_LOG(logger_, 30,
           "Removed " << emptyFiles << " empty files and " << blocks << " blocks from track "
                      << trackId_ << " for a total size of " << bytes << "B. Max track size is now "
                      << counters.maxTrackSize.load() / 1000000 << "MB, current track size is now "
                      << counters.trackSize.load() / 1000000 << "MB (" << counters.trackSize.load()
                      << "B)");
}

void TrackFileBook::LogCleared(size_t blocks) const {
    if (!blocks_.empty()) {
        MR_LOG(logger_, 30,
               "Track " << trackId_ << ": cleared but there were protections: " << blocks
                        << " blocks removed. There are now " << emptyFiles_.size()
                        << " empty files available.");
    } else {
        MR_LOG(logger_, 30,
               "Track " << trackId_ << " cleared. There are now " << emptyFiles_.size()
                        << " empty files available. Track is empty.");
    }
}
