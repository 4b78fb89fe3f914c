// LoopRecordingFileManager, continued: the maintenance side (files given and
// taken back, clearing, protections, persistence). The class's contract and
// its locks are described in its header.
#include <algorithm>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/StrCat.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/Ram/BlockNavigation.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "Storage/Indexes/Ram/TrackAgePurge.h"
#include "Storage/Indexes/Ram/TrackIndexRecovery.h"

using Moreld::Time::TimePoint;
using Moreld::Tools::StrCat;

// ---------------------------------------------------------------------------
// Files

void LoopRecordingFileManager::InsertFiles(const std::vector<ChunkFile>& files) {
    UniqueLock lock(filesMutex_);
    {
        Moreld::Tools::MutexLock db(dbMutex_);
        trackDb_.AddEmptyFiles(files);
    }
    for (const ChunkFile& file : files)
        NoteFileSize(file);
    const unsigned long bytes = Book().AddEmptyFiles(files);
    counters_.maxTrackSize += bytes;
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": (" << files.size() << " files / " << bytes
               << "B) inserted. Max track size is now " << counters_.maxTrackSize.load() / 1000000
               << "MB");
}

std::vector<ChunkFile> LoopRecordingFileManager::RemoveFiles(unsigned long size) {
    UniqueLock files(filesMutex_);
    UniqueLock index(indexMutex_);
    TrackFileBook::Freed freed;
    std::vector<ChunkFile> result = Book().TakeEmptyFiles(size, freed, KeepFileBeingWritten());
    const size_t emptyCount = result.size();
    if (freed.fileBytes < size) {
        std::vector<ChunkFile> blockFiles =
            Book().TakeRecyclableBlocks(size, freed, KeepFileBeingWritten());
        result.insert(result.end(), blockFiles.begin(), blockFiles.end());
        CountFreed(freed);
        AdaptBeginningOfTrack();
    } else {
        CountFreed(freed);
    }
    Book().LogRemoved(emptyCount, result.size() - emptyCount, freed.fileBytes, counters_);
    return result;
}

bool LoopRecordingFileManager::ForceRemoveFiles(const std::vector<ChunkFile>& files) {
    UniqueLock filesLock(filesMutex_);
    UniqueLock index(indexMutex_);
    bool allFound = true;
    for (const ChunkFile& file : files) {
        TrackFileBook::Freed freed;
        if (Book().RemoveEmptyFile(file, freed)) {
            Moreld::Tools::MutexLock db(dbMutex_);
            trackDb_.RemoveEmptyFile(file);
        } else if (!Book().RemoveBlockOfFile(file, freed)) {
            MR_LOG(logger_, 40,
                   "T" << trackId_ << ": Could not find file " << file
                       << " in empty files or in the blocks");
            allFound = false;
        }
        CountFreed(freed);
    }
    AdaptBeginningOfTrack();
    return allFound;
}

void LoopRecordingFileManager::Clear() {
    UniqueLock files(filesMutex_);
    UniqueLock index(indexMutex_);
    TrackFileBook::Freed freed;
    const std::vector<ChunkFile> cleared = Book().EmptyRecyclableBlocks(freed);
    CountFreed(freed);
    {
        Moreld::Tools::MutexLock db(dbMutex_);
        trackDb_.Clear(cleared);
    }
    AdaptBeginningOfTrack();
    if (!blocks_.empty())
        counters_.endOfTrack = blocks_.rbegin()->second.GetTcOut();
    Book().LogCleared(cleared.size());
}

void LoopRecordingFileManager::SetMaxAge(const TimePoint& maxAge) {
    TrackAgePurge(*this).SetMaxAge(maxAge);
}

size_t LoopRecordingFileManager::PurgeOlderThan(const TimePoint& cutoff) {
    return TrackAgePurge(*this).Run(cutoff);
}

// ---------------------------------------------------------------------------
// Protections

void LoopRecordingFileManager::Protect(long id, const TimePoint& in, const TimePoint& out) {
    ProtectRange(id, in, out, false);
}

size_t LoopRecordingFileManager::RestoreProtection(long id, const TimePoint& in,
                                                   const TimePoint& out) {
    return ProtectRange(id, in, out, true);
}

size_t LoopRecordingFileManager::ProtectRange(long id, const TimePoint& in, const TimePoint& out,
                                              bool mayHoldNothing) {
    const auto key = static_cast<unsigned long>(id);
    UniqueLock lock(filesMutex_);
    protections_.CheckRequest(key, in, out);
    std::vector<ChunkFile> files;
    {
        UniqueLock index(indexMutex_);
        files = protections_.Protect(key, in, out, mayHoldNothing, blocks_, recyclableKeys_);
    }
    if (files.empty())
        return 0;
    AdaptBeginningOfTrack();
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": " << files.size() << " files protected, beginning of track is "
               << counters_.beginningOfTrack.load());
    for (IProtectionObserver* observer : protectionObservers_)
        observer->OnProtected(id, in, out, files);
    return files.size();
}

void LoopRecordingFileManager::HoldNewestBlockLocked() {
    if (protections_.HoldNewest(blocks_, recyclableKeys_))
        AdaptBeginningOfTrack();
}

unsigned long LoopRecordingFileManager::Unprotect(long id) {
    UniqueLock lock(filesMutex_);
    const auto key = static_cast<unsigned long>(id);
    if (!protections_.Has(key))
        throw std::runtime_error(StrCat("No protection handle ", id, " on track ", trackId_));
    unsigned long freed;
    {
        UniqueLock index(indexMutex_);
        freed = protections_.Release(key, blocks_, recyclableKeys_);
    }
    AdaptBeginningOfTrack();
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": unprotected protection " << id << ": Beginning of track is "
               << counters_.beginningOfTrack.load());
    return freed;
}

void LoopRecordingFileManager::RegisterProtectionObserver(IProtectionObserver* observer) {
    UniqueLock lock(filesMutex_);
    protectionObservers_.insert(observer);
}

void LoopRecordingFileManager::UnregisterProtectionObserver(IProtectionObserver* observer) {
    UniqueLock lock(filesMutex_);
    protectionObservers_.erase(observer);
}

// ---------------------------------------------------------------------------
// Persistence and recovery: TrackIndexRecovery does the work.

void LoopRecordingFileManager::OpenDatabase(const std::string& directory) {
    TrackIndexRecovery(*this).OpenDatabase(directory);
    Moreld::Tools::MutexLock db(dbMutex_);
    maxAge_ = trackDb_.GetMaxAge();
}

void LoopRecordingFileManager::HandlePowerFailure(const std::string& root) {
    TrackIndexRecovery(*this).HandlePowerFailure(root);
}

void LoopRecordingFileManager::SaveAndRemove(const std::vector<FileSystem::Chunk>& chunks) {
    // Clearing and shrinking hold filesMutex_ exclusively: no block can go
    // between the check and the save, and none can come back through it.
    SharedLock files(filesMutex_);
    const std::vector<FileSystem::Chunk> indexed = StillIndexed(chunks);
    LOOPSTORE_SYNC_POINT("LoopRecordingFileManager::SaveAndRemove:Checked");
    Moreld::Tools::MutexLock db(dbMutex_);
    trackDb_.SaveAndRemove(indexed);
}

std::vector<FileSystem::Chunk> LoopRecordingFileManager::StillIndexed(
    const std::vector<FileSystem::Chunk>& chunks) const {
    SharedLock index(indexMutex_);
    const BlockNavigation navigation(blocks_);
    std::vector<FileSystem::Chunk> indexed;
    for (const FileSystem::Chunk& chunk : chunks) {
        if (navigation.Holds(chunk))
            indexed.push_back(chunk);
    }
    if (indexed.size() != chunks.size()) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": " << chunks.size() - indexed.size() << " chunks of "
                   << chunks.front().location.file
                   << " left the index while the file was written; they are not saved");
    }
    return indexed;
}

void LoopRecordingFileManager::BeginWriting() {
    UniqueLock index(indexMutex_);
    writing_ = true;
}

void LoopRecordingFileManager::EndWriting() {
    UniqueLock index(indexMutex_);
    writing_ = false;
    fileBeingWritten_.reset();
}

void LoopRecordingFileManager::RemoveFiles(const std::vector<ChunkFile>& files) {
    Moreld::Tools::MutexLock db(dbMutex_);
    trackDb_.RemoveFiles(files);
}

void LoopRecordingFileManager::DestroyDatabase() {
    Moreld::Tools::MutexLock db(dbMutex_);
    trackDb_.Destroy();
}

void LoopRecordingFileManager::SetActiveMode(bool active) {
    UniqueLock files(filesMutex_);
    Moreld::Tools::MutexLock db(dbMutex_);
    if (trackDb_.IsOpen())
        trackDb_.SetActiveMode(active);
}

bool LoopRecordingFileManager::IsActive() {
    UniqueLock files(filesMutex_);
    Moreld::Tools::MutexLock db(dbMutex_);
    return trackDb_.IsOpen() && trackDb_.IsActive();
}

bool LoopRecordingFileManager::CheckInvariant() {
    SharedLock index(indexMutex_);
    const auto overlap = BlockNavigation(blocks_).FirstOverlap();
    if (!overlap)
        return true;
    MR_LOG(logger_, 40,
           "T" << trackId_ << ": Next block tcIn " << overlap->first
               << " comes before previous block tcOut " << overlap->second);
    return false;
}
