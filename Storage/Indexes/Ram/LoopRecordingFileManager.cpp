#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

#include <sstream>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/Ram/TrackAgePurge.h"
#include "Storage/Indexes/Ram/TrackIndexRecovery.h"

using Moreld::Time::TimePoint;

namespace {

using SharedLock = std::shared_lock<std::shared_mutex>;
using UniqueLock = std::unique_lock<std::shared_mutex>;

// Every chunk file starts with a header of this size; a block's first chunk
// lies right after it.
constexpr unsigned long kFileHeaderSize = 16;

template <typename... Parts>
std::string Concat(const Parts&... parts) {
    std::ostringstream os;
    (os << ... << parts);
    return os.str();
}

}  // namespace

LoopRecordingFileManager::LoopRecordingFileManager(long trackId)
    : trackId_(trackId),
      logger_(*tav::mr::logging::LoggingManager::GetLoggerPtr("LoopRecordingFileManager")) {}

LoopRecordingFileManager::~LoopRecordingFileManager() = default;

// ---------------------------------------------------------------------------
// Appending

FileSystem::Chunk LoopRecordingFileManager::Append(const TimePoint& tp, const TimePoint& duration,
                                                   unsigned long size) {
    const TimePoint end = endOfTrack_.load();
    if (end > tp) {
        std::string msg =
            Concat("T", trackId_, ": Chunk's timepoint ", tp, " (", tp.ToNanoseconds(),
                   "ns) < end of track ", end, " (", end.ToNanoseconds(), "ns)");
        MR_LOG(logger_, 50, msg);
        throw std::runtime_error(msg);
    }
    {
        // The common case: one map insertion under one lock. Every operation
        // that erases blocks holds indexMutex_ exclusively too.
        UniqueLock index(indexMutex_);
        if (!blocks_.empty()) {
            FileSystem::Block& last = blocks_.rbegin()->second;
            if (chunkCounter_ % 750 == 0)
                LogProgress(last);
            if (last.IsSpaceForNewChunk(size))
                return AppendInBlockLocked(last, tp, duration, size);
        }
    }
    bool empty;
    {
        SharedLock index(indexMutex_);
        empty = blocks_.empty();
    }
    if (empty)
        return AppendFirstChunk(tp, duration, size);

    UniqueLock files(filesMutex_);
    if (!protectionRanges_.Empty()) {
        // The block being closed may have grown into a protection's range
        // since it opened: it is held before a file is chosen for recycling.
        UniqueLock index(indexMutex_);
        HoldNewestBlockLocked();
    }
    FileChoice choice = ChooseFileForNewBlock(tp, size);
    if (size > static_cast<unsigned long>(choice.file.Size())) {
        std::string msg = Concat("Current file ", choice.file.ToString(),
                                 " cannot hold a chunk of size ", size, " on track", trackId_);
        MR_LOG(logger_, 50, msg);
        throw std::runtime_error(msg);
    }
    if (choice.recycled && durableRecycling_) {
        ForgetRecycledFile(choice.file);
        // The database now lists the file as empty: its new chunks replace that row.
        choice.file.SetFromEmptyFile(true);
    }
    UniqueLock index(indexMutex_);
    if (choice.recycled) {
        ReleaseRecycledBlock(choice);
    } else {
        emptyFiles_.pop_front();
    }
    FileSystem::Chunk chunk = OpenBlock(choice, tp, duration, size);
    HoldNewestBlockLocked();
    return chunk;
}

LoopRecordingFileManager::FileChoice LoopRecordingFileManager::ChooseFileForNewBlock(
    const TimePoint& tp, unsigned long size) {
    FileChoice choice;
    if (!emptyFiles_.empty()) {
        choice.file = emptyFiles_.front();
        choice.file.SetFromEmptyFile(true);
        loopRecording_ = false;
        return choice;
    }
    if (recyclableKeys_.empty()) {
        std::string msg =
            Concat("T", trackId_, ": No more recyclable file available to store chunk at ", tp,
                   " of size ", size, ". Grow track or unprotect some content");
        MR_LOG(logger_, 40, msg);
        throw std::runtime_error(msg);
    }
    const TimePoint key = *recyclableKeys_.begin();
    auto it = blocks_.find(key);  // safe under filesMutex_: see Append
    if (it == blocks_.end()) {
        std::string msg = Concat("T", trackId_, ": Could not find recycled block timepoint ", key,
                                 " to store chunk at ", tp);
        MR_LOG(logger_, 50, msg);
        throw std::runtime_error(msg);
    }
    choice.file = it->second.GetChunkFile();
    choice.file.SetFromEmptyFile(false);
    choice.recycled = true;
    choice.recycledKey = key;
    if (!loopRecording_) {
        loopRecording_ = true;
        MR_LOG(
            logger_, 30,
            "T" << trackId_ << ": is now in LoopRecording at " << tp << " on file " << choice.file);
    }
    return choice;
}

void LoopRecordingFileManager::ForgetRecycledFile(const ChunkFile& file) {
    // The file is about to be rewritten: its old rows must not survive a crash
    // that happens before its new chunks are saved. The track database's
    // commits are durable, and this one must be before the file's first new
    // record is written, as those may reach the disk at any moment.
    std::lock_guard<std::mutex> db(dbMutex_);
    trackDb_.RemoveAndAddAsEmptyFile(file);
    LOOPSTORE_SYNC_POINT("LoopRecordingFileManager::ForgetRecycledFile:Committed");
}

void LoopRecordingFileManager::ReleaseRecycledBlock(const FileChoice& choice) {
    auto it = blocks_.find(choice.recycledKey);
    if (it == blocks_.end()) {
        throw std::runtime_error("Block with tcIn " + choice.recycledKey.ToString() +
                                 " should belong to the map");
    }
    recyclableKeys_.erase(choice.recycledKey);
    counters_.CountRecycledFile();
    const unsigned long blockSize = it->second.GetCurrentSize();
    trackSize_ = trackSize_.load() + kFileHeaderSize - blockSize;
    MR_LOG(logger_, 10,
           "T" << trackId_ << ": Remove block at " << choice.recycledKey << " of size " << blockSize
               << " on file " << choice.file);
    blocks_.erase(it);
}

FileSystem::Chunk LoopRecordingFileManager::OpenBlock(const FileChoice& choice, const TimePoint& tp,
                                                      const TimePoint& duration,
                                                      unsigned long size) {
    // The newest block takes no more chunks: the room its chunks grew into
    // goes back before a new one starts growing.
    if (!blocks_.empty())
        blocks_.rbegin()->second.ShrinkToFit();
    BlockConfiguration configuration(static_cast<unsigned long>(choice.file.Size()), 0);
    auto [it, inserted] = blocks_.try_emplace(tp, configuration);
    if (!inserted)
        it->second.Reset(configuration);
    FileSystem::Block& block = it->second;

    FileSystem::Chunk chunk(tp, duration, accumulatedDuration_.load(),
                            ChunkLocation(choice.file, kFileHeaderSize, size, 0));
    chunk.sequenceNumber = static_cast<unsigned long>(chunkCounter_);
    if (!block.Append(chunk)) {
        // The empty block stays: the next chunk will find it and fill it.
        MR_LOG(
            logger_, 50,
            "Could not append chunk at " << tp << " in new block. Chunk is " << chunk.ToString());
        throw std::runtime_error(Concat("Could not append chunk at ", tp));
    }
    CountAppended(chunk);
    recyclableKeys_.insert(tp);
    AdaptBeginningOfTrack();
    MR_LOG(logger_, 10,
           "T" << trackId_ << ": Inserted first chunk in block at " << tp << " on file "
               << choice.file);
    return block.GetLastChunk();
}

FileSystem::Chunk LoopRecordingFileManager::AppendFirstChunk(const TimePoint& tp,
                                                             const TimePoint& duration,
                                                             unsigned long size) {
    UniqueLock files(filesMutex_);
    if (emptyFiles_.empty()) {
        MR_LOG(logger_, 50,
               "T" << trackId_ << ": no block and no empty files to store chunk at " << tp
                   << ". recyclableKeys has " << recyclableKeys_.size() << " elements");
        throw std::runtime_error(Concat("You must call GrowTrack to store chunks at ",
                                        tp.ToString(), " for track ", trackId_));
    }
    ChunkFile file = emptyFiles_.front();
    file.SetFromEmptyFile(true);
    loopRecording_ = false;
    if (static_cast<unsigned long>(file.Size()) < size) {
        throw std::runtime_error(Concat(
            "Empty file ", file.ToString(), " cannot hold a chunk of size ", size, " on track",
            trackId_, ". The pool must contains bigger files to store this chunk"));
    }
    emptyFiles_.pop_front();

    UniqueLock index(indexMutex_);
    BlockConfiguration configuration(static_cast<unsigned long>(file.Size()), 0);
    auto [it, inserted] = blocks_.try_emplace(tp, configuration);
    if (!inserted)
        it->second.Reset(configuration);
    FileSystem::Chunk chunk(tp, duration, TimePoint::FromNanoseconds(0),
                            ChunkLocation(file, kFileHeaderSize, size, 0));
    chunk.sequenceNumber = 0;
    if (!it->second.Append(chunk)) {
        MR_LOG(
            logger_, 50,
            "Could not append chunk at " << tp << " in first block. Chunk is " << chunk.ToString());
        throw std::runtime_error(Concat("Could not append chunk at ", tp));
    }
    NotePlaced(file);
    counters_.CountChunk(size);
    // A new track starts its counters again, except the chunk counter, which
    // goes on after a Clear.
    accumulatedDuration_ = duration;
    ++chunkCounter_;
    endOfTrack_ = tp + duration;
    trackSize_ = size;
    recyclableKeys_.insert(tp);
    AdaptBeginningOfTrack();
    HoldNewestBlockLocked();
    return it->second.GetLastChunk();
}

FileSystem::Chunk LoopRecordingFileManager::AppendInBlock(FileSystem::Block& block,
                                                          const TimePoint& tp,
                                                          const TimePoint& duration,
                                                          unsigned long size) {
    UniqueLock index(indexMutex_);
    return AppendInBlockLocked(block, tp, duration, size);
}

FileSystem::Chunk LoopRecordingFileManager::AppendInBlockLocked(FileSystem::Block& block,
                                                                const TimePoint& tp,
                                                                const TimePoint& duration,
                                                                unsigned long size) {
    ChunkLocation location(block.GetChunkFile(), block.GetCurrentSize(), size,
                           block.GetIndexOfNewChunk());
    FileSystem::Chunk chunk(tp, duration, accumulatedDuration_.load(std::memory_order_relaxed),
                            location);
    chunk.sequenceNumber = static_cast<unsigned long>(chunkCounter_);
    if (!block.Append(chunk)) {
        MR_LOG(logger_, 50,
               "Could not append chunk at " << tp << " in last block at " << block.GetTcIn()
                                            << ".  Chunk is " << chunk.ToString());
        throw std::runtime_error(Concat("Could not append chunk at ", tp));
    }
    MR_LOG(logger_, 10, "T" << trackId_ << ": Inserted chunk in same block at " << tp);
    CountAppended(chunk);
    return chunk;
}

void LoopRecordingFileManager::NoteFileSize(const ChunkFile& file) {
    const unsigned long size = static_cast<unsigned long>(file.Size());
    unsigned long known = fileSize_.load();
    while (size > known && !fileSize_.compare_exchange_weak(known, size)) {
    }
}

// With indexMutex_ held exclusively: the writer is about to write there.
void LoopRecordingFileManager::NotePlaced(const ChunkFile& file) {
    if (writing_ && fileBeingWritten_ != file)
        fileBeingWritten_ = file;
}

// With indexMutex_ held.
bool LoopRecordingFileManager::IsBeingWritten(const ChunkFile& file) const {
    if (!fileBeingWritten_ || *fileBeingWritten_ != file)
        return false;
    MR_LOG(logger_, 30, "T" << trackId_ << ": file " << file << " is being written: it stays");
    return true;
}

// Called with indexMutex_ held exclusively, as every writer of these
// counters is: the stores only need to be atomic for lock-free readers.
void LoopRecordingFileManager::CountAppended(const FileSystem::Chunk& chunk) {
    NotePlaced(chunk.location.file);
    counters_.CountChunk(chunk.location.size);
    constexpr auto relaxed = std::memory_order_relaxed;
    accumulatedDuration_.store(accumulatedDuration_.load(relaxed) + chunk.duration, relaxed);
    ++chunkCounter_;
    endOfTrack_.store(chunk.timepoint + chunk.duration, relaxed);
    trackSize_.store(trackSize_.load(relaxed) + chunk.location.size, relaxed);
}

void LoopRecordingFileManager::LogProgress(const FileSystem::Block& last) {
    MR_LOG(logger_, 20,
           "T" << trackId_ << ": " << trackSize_.load() / 1000000 << "MB, chunk " << chunkCounter_
               << ", last written file: " << last.GetChunkFile().GetFileName());
}

bool LoopRecordingFileManager::IndexBlock(FileSystem::Block block) {
    if (block.GetTcOut() > endOfTrack_.load())
        endOfTrack_ = block.GetTcOut();
    if (blocks_.count(block.GetTcIn()) != 0) {
        MR_LOG(logger_, 50,
               "T" << trackId_ << ": Block at tp IN " << block.GetTcIn()
                   << " is already indexed, we don't index it twice.");
        return false;
    }
    const TimePoint key = block.GetTcIn();
    const bool recyclable = block.GetProtections().empty();
    trackSize_ += block.GetCurrentSize() - kFileHeaderSize;
    maxTrackSize_ += static_cast<unsigned long>(block.GetChunkFile().Size());
    NoteFileSize(block.GetChunkFile());
    blocks_.emplace(key, std::move(block));
    if (recyclable)
        recyclableKeys_.insert(key);
    return true;
}

void LoopRecordingFileManager::AdaptBeginningOfTrack() {
    beginningOfTrack_ = recyclableKeys_.empty() ? TimePoint() : *recyclableKeys_.begin();
}

void LoopRecordingFileManager::SetChunkProtectionFactory(IChunkProtectionFactory* factory) {
    chunkProtectionFactory_ = factory;
}

unsigned long LoopRecordingFileManager::GetSizeOnRam() const {
    SharedLock index(indexMutex_);
    unsigned long size = 8 * blocks_.size();
    for (const auto& [key, block] : blocks_)
        size += block.GetSizeOnRam();
    return size;
}

// ---------------------------------------------------------------------------
// Lookup and navigation. Searches hold indexMutex_ shared, including the call
// to the protection factory, and cover every block, protected ones included.

void LoopRecordingFileManager::CheckFactory() const {
    if (chunkProtectionFactory_.load() == nullptr) {
        throw std::runtime_error(Concat(
            "ChunkProtection factory not set in LoopRecordingFileManager on track ", trackId_));
    }
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::MakeHandle(
    const FileSystem::Chunk& chunk) const {
    return chunkProtectionFactory_.load()->Create(chunk);
}

std::map<TimePoint, FileSystem::Block>::const_iterator LoopRecordingFileManager::BlockAtOrBefore(
    const TimePoint& tp) const {
    auto it = blocks_.upper_bound(tp);
    if (it == blocks_.begin())
        return blocks_.end();
    return std::prev(it);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::Lookup(TimePoint tp) {
    CheckFactory();
    MR_LOG(logger_, 10, "Lookup at " << tp);
    SharedLock index(indexMutex_);
    auto it = BlockAtOrBefore(tp);
    FileSystem::Chunk chunk;
    if (it == blocks_.end() || !it->second.Lookup(tp, chunk))
        return nullptr;
    return MakeHandle(chunk);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::Next(TimePoint tp, TimePoint& found) {
    CheckFactory();
    MR_LOG(logger_, 10, "Next at " << tp);
    SharedLock index(indexMutex_);
    if (blocks_.empty())
        return nullptr;
    FileSystem::Chunk chunk;
    auto it = blocks_.cbegin();
    if (tp >= it->first) {
        it = BlockAtOrBefore(tp);
        if (it->second.Next(tp, chunk)) {
            found = chunk.timepoint;
            return MakeHandle(chunk);
        }
        ++it;
    }
    // Skip blocks left empty by a failed append.
    while (it != blocks_.end() && it->second.Empty())
        ++it;
    if (it == blocks_.end())
        return nullptr;
    chunk = it->second.GetFirstChunk();
    found = chunk.timepoint;
    return MakeHandle(chunk);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::Previous(TimePoint tp, TimePoint& found) {
    CheckFactory();
    MR_LOG(logger_, 10, "Previous at " << tp);
    SharedLock index(indexMutex_);
    if (blocks_.empty())
        return nullptr;
    FileSystem::Chunk chunk;
    const FileSystem::Block& last = blocks_.rbegin()->second;
    if (!last.Empty() && tp >= last.GetTcOut()) {
        chunk = last.GetLastChunk();
    } else {
        auto it = BlockAtOrBefore(tp);
        if (it == blocks_.end())
            return nullptr;
        if (!it->second.Previous(tp, chunk)) {
            do {
                if (it == blocks_.begin())
                    return nullptr;
                --it;
            } while (it->second.Empty());
            chunk = it->second.GetLastChunk();
        }
    }
    found = chunk.timepoint;
    return MakeHandle(chunk);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::GetFirstChunkLocation(
    TimePoint& found) const {
    CheckFactory();
    SharedLock index(indexMutex_);
    if (blocks_.empty() || blocks_.begin()->second.Empty()) {
        MR_LOG(logger_, 20, "T" << trackId_ << ": Cannot get first ChunkLocation: track is empty");
        return nullptr;
    }
    found = blocks_.begin()->second.GetTcIn();
    return MakeHandle(blocks_.begin()->second.GetFirstChunk());
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::GetLastChunkLocation(
    TimePoint& found) const {
    CheckFactory();
    SharedLock index(indexMutex_);
    if (blocks_.empty() || blocks_.rbegin()->second.Empty()) {
        MR_LOG(logger_, 20, "T" << trackId_ << ": Cannot get last ChunkLocation: track is empty");
        return nullptr;
    }
    FileSystem::Chunk chunk = blocks_.rbegin()->second.GetLastChunk();
    found = chunk.timepoint;
    return MakeHandle(chunk);
}

unsigned long LoopRecordingFileManager::GetNumberOfChunks(const TimePoint& from,
                                                          const TimePoint& to) {
    if (from >= to)
        return 0;
    TimePoint ignored;
    ChunkHandle first = Lookup(from);
    if (!first)
        first = Next(from, ignored);
    if (!first)
        return 0;
    const unsigned long start = first->GetChunk().sequenceNumber;
    if (ChunkHandle last = Lookup(to)) {
        FileSystem::Chunk b = last->GetChunk();
        return b.sequenceNumber + (b.timepoint < to ? 1 : 0) - start;
    }
    if (ChunkHandle last = Previous(to, ignored))
        return last->GetChunk().sequenceNumber + 1 - start;
    return 0;
}

TimePoint LoopRecordingFileManager::GetAccumulatedDuration(const TimePoint& from,
                                                           const TimePoint& to) {
    if (from >= to)
        return TimePoint();
    TimePoint ignored;
    ChunkHandle first = Lookup(from);
    if (!first)
        first = Next(from, ignored);
    if (!first)
        return TimePoint();
    const TimePoint start = first->GetChunk().accumulatedDuration;
    if (ChunkHandle last = Lookup(to)) {
        FileSystem::Chunk b = last->GetChunk();
        return b.accumulatedDuration + (b.timepoint < to ? b.duration : TimePoint()) - start;
    }
    if (ChunkHandle last = Previous(to, ignored)) {
        FileSystem::Chunk b = last->GetChunk();
        return b.accumulatedDuration + b.duration - start;
    }
    return TimePoint();
}

bool LoopRecordingFileManager::HasFile(const ChunkFile& file) {
    UniqueLock files(filesMutex_);
    std::vector<ChunkFile> empties;
    {
        // The database, not the RAM queue, is asked: a file handed to the
        // track counts once it is recorded there.
        std::lock_guard<std::mutex> db(dbMutex_);
        empties = trackDb_.GetAllEmptyFiles();
    }
    for (const ChunkFile& empty : empties) {
        if (empty == file)
            return true;
    }
    SharedLock index(indexMutex_);
    for (const auto& [key, block] : blocks_) {
        if (!block.Empty() && block.GetChunkFile() == file)
            return true;
    }
    return false;
}

// ---------------------------------------------------------------------------
// Files

void LoopRecordingFileManager::InsertFiles(const std::vector<ChunkFile>& files) {
    UniqueLock lock(filesMutex_);
    {
        std::lock_guard<std::mutex> db(dbMutex_);
        trackDb_.AddEmptyFiles(files);
    }
    unsigned long bytes = 0;
    for (ChunkFile file : files) {
        file.SetFromEmptyFile(true);
        NoteFileSize(file);
        emptyFiles_.push_back(file);
        bytes += static_cast<unsigned long>(file.Size());
    }
    maxTrackSize_ += bytes;
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": (" << files.size() << " files / " << bytes
               << "B) inserted. Max track size is now " << maxTrackSize_.load() / 1000000 << "MB");
}

std::vector<ChunkFile> LoopRecordingFileManager::RemoveEmptyFilesUpTo(unsigned long size,
                                                                      unsigned long& taken) {
    std::vector<ChunkFile> result;
    // A cleared file may still be written: the writer had placed a chunk in
    // it before its block went.
    for (auto it = emptyFiles_.begin(); taken < size && it != emptyFiles_.end();) {
        if (IsBeingWritten(*it)) {
            ++it;
            continue;
        }
        ChunkFile file = *it;
        it = emptyFiles_.erase(it);
        file.SetFromEmptyFile(true);
        taken += static_cast<unsigned long>(file.Size());
        maxTrackSize_ -= static_cast<unsigned long>(file.Size());
        result.push_back(file);
    }
    return result;
}

std::vector<ChunkFile> LoopRecordingFileManager::RemoveBlocksUpTo(unsigned long size,
                                                                  unsigned long& taken) {
    std::vector<ChunkFile> result;
    auto key = recyclableKeys_.begin();
    while (taken < size && key != recyclableKeys_.end()) {
        auto block = blocks_.find(*key);
        if (block == blocks_.end()) {
            MR_LOG(logger_, 40,
                   "Could not find block to remove at recyclable timepoint "
                       << *key << " --> we remove this timepoint from the recyclable ones");
            key = recyclableKeys_.erase(key);
            continue;
        }
        if (IsBeingWritten(block->second.GetChunkFile())) {
            ++key;
            continue;
        }
        // The file holds chunk data: its rows in the database are chunk rows,
        // whatever flag the block's file carried when it was opened.
        ChunkFile file = block->second.GetChunkFile();
        file.SetFromEmptyFile(false);
        taken += static_cast<unsigned long>(file.Size());
        maxTrackSize_ -= static_cast<unsigned long>(file.Size());
        trackSize_ = trackSize_.load() + kFileHeaderSize - block->second.GetCurrentSize();
        result.push_back(file);
        blocks_.erase(block);
        key = recyclableKeys_.erase(key);
    }
    return result;
}

std::vector<ChunkFile> LoopRecordingFileManager::RemoveFiles(unsigned long size) {
    UniqueLock files(filesMutex_);
    UniqueLock index(indexMutex_);
    unsigned long taken = 0;
    std::vector<ChunkFile> result = RemoveEmptyFilesUpTo(size, taken);
    const size_t emptyCount = result.size();
    if (taken < size) {
        std::vector<ChunkFile> blockFiles = RemoveBlocksUpTo(size, taken);
        result.insert(result.end(), blockFiles.begin(), blockFiles.end());
        AdaptBeginningOfTrack();
    }
    const size_t blockCount = result.size() - emptyCount;
    if (blockCount == 0) {
        MR_LOG(logger_, 30,
               "Removed " << emptyCount << " empty files from track " << trackId_
                          << " for a total size of " << taken << "B");
    } else {
        MR_LOG(logger_, 30,
               "Removed " << emptyCount << " empty files and " << blockCount
                          << " blocks from track " << trackId_ << " for a total size of " << taken
                          << "B. Max track size is now " << maxTrackSize_.load() / 1000000
                          << "MB, current track size is now " << trackSize_.load() / 1000000
                          << "MB (" << trackSize_.load() << "B)");
    }
    return result;
}

bool LoopRecordingFileManager::RemoveFromEmptyFiles(const ChunkFile& file) {
    for (auto it = emptyFiles_.begin(); it != emptyFiles_.end(); ++it) {
        if (*it == file) {
            maxTrackSize_ -= static_cast<unsigned long>(it->Size());
            emptyFiles_.erase(it);
            std::lock_guard<std::mutex> db(dbMutex_);
            trackDb_.RemoveEmptyFile(file);
            return true;
        }
    }
    return false;
}

bool LoopRecordingFileManager::RemoveBlockOfFile(const ChunkFile& file) {
    for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
        if (!it->second.Empty() && it->second.GetChunkFile() == file) {
            maxTrackSize_ -= static_cast<unsigned long>(file.Size());
            trackSize_ = trackSize_.load() + kFileHeaderSize - it->second.GetCurrentSize();
            recyclableKeys_.erase(it->first);
            blocks_.erase(it);
            return true;
        }
    }
    return false;
}

bool LoopRecordingFileManager::ForceRemoveFiles(const std::vector<ChunkFile>& files) {
    UniqueLock filesLock(filesMutex_);
    UniqueLock index(indexMutex_);
    bool allFound = true;
    for (const ChunkFile& file : files) {
        if (RemoveFromEmptyFiles(file) || RemoveBlockOfFile(file))
            continue;
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": Could not find file " << file
                   << " in empty files or in the blocks");
        allFound = false;
    }
    AdaptBeginningOfTrack();
    return allFound;
}

void LoopRecordingFileManager::Clear() {
    UniqueLock files(filesMutex_);
    UniqueLock index(indexMutex_);
    std::vector<ChunkFile> cleared;
    for (const TimePoint& key : recyclableKeys_) {
        auto block = blocks_.find(key);
        if (block == blocks_.end()) {
            MR_LOG(logger_, 40,
                   "Could not find block to clear at recyclable timepoint "
                       << key << " --> we remove this timepoint from the recyclable ones");
            continue;
        }
        trackSize_ = trackSize_.load() + kFileHeaderSize - block->second.GetCurrentSize();
        ChunkFile file = block->second.GetChunkFile();
        file.SetFromEmptyFile(true);
        cleared.push_back(file);
        emptyFiles_.push_back(file);
        blocks_.erase(block);
    }
    recyclableKeys_.clear();
    {
        std::lock_guard<std::mutex> db(dbMutex_);
        trackDb_.Clear(cleared);
    }
    AdaptBeginningOfTrack();
    if (!blocks_.empty()) {
        endOfTrack_ = blocks_.rbegin()->second.GetTcOut();
        MR_LOG(logger_, 30,
               "Track " << trackId_ << ": cleared but there were protections: " << cleared.size()
                        << " blocks removed. There are now " << emptyFiles_.size()
                        << " empty files available.");
    } else {
        MR_LOG(logger_, 30,
               "Track " << trackId_ << " cleared. There are now " << emptyFiles_.size()
                        << " empty files available. Track is empty.");
    }
}

void LoopRecordingFileManager::SetMaxAge(const TimePoint& maxAge) {
    TrackAgePurge(*this).SetMaxAge(maxAge);
}

size_t LoopRecordingFileManager::PurgeOlderThan(const TimePoint& cutoff) {
    return TrackAgePurge(*this).Run(cutoff);
}

// ---------------------------------------------------------------------------
// Protections

std::vector<ChunkFile> LoopRecordingFileManager::ProtectBlocks(long id, const TimePoint& in,
                                                               const TimePoint& out) {
    UniqueLock index(indexMutex_);
    std::vector<ChunkFile> files;
    auto it = blocks_.upper_bound(in);
    if (it != blocks_.begin())
        --it;
    const unsigned long key = static_cast<unsigned long>(id);
    for (; it != blocks_.end() && it->second.IsBetween(in, out); ++it) {
        it->second.GetProtections().insert(key);
        recyclableKeys_.erase(it->first);
        protections_[key].insert(it->first);
        files.push_back(it->second.GetChunkFile());
        MR_LOG(logger_, 20,
               "T" << trackId_ << ": Block at " << it->second.GetTcIn() << " on file "
                   << files.back() << " protected with id " << id);
    }
    return files;
}

void LoopRecordingFileManager::Protect(long id, const TimePoint& in, const TimePoint& out) {
    ProtectRange(id, in, out, false);
}

size_t LoopRecordingFileManager::RestoreProtection(long id, const TimePoint& in,
                                                   const TimePoint& out) {
    return ProtectRange(id, in, out, true);
}

size_t LoopRecordingFileManager::ProtectRange(long id, const TimePoint& in, const TimePoint& out,
                                              bool mayHoldNothing) {
    if (id == 0) {
        std::string msg =
            Concat("Protection id 0 is not accepted to protect from ", in, " to ", out);
        MR_LOG(logger_, 40, msg);
        throw std::runtime_error(msg);
    }
    if (out <= in) {
        std::string msg = Concat("Timepoint OUT ", out, " must be > timepoint IN ", in,
                                 " to call Protect on track ", trackId_);
        MR_LOG(logger_, 40, msg);
        throw std::runtime_error(msg);
    }
    UniqueLock lock(filesMutex_);
    if (protections_.count(static_cast<unsigned long>(id)) != 0) {
        std::string msg =
            Concat("Protection id ", id, " already used t protect from ", in, " to ", out);
        MR_LOG(logger_, 40, msg);
        throw std::runtime_error(msg);
    }
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": Protect from " << in << " to " << out << " with protection id "
               << id);
    bool empty;
    {
        SharedLock index(indexMutex_);
        empty = blocks_.empty();
    }
    if (empty && !mayHoldNothing) {
        std::string msg = Concat("Nothing to protect on track ", trackId_, ": track is empty");
        MR_LOG(logger_, 30, msg);
        throw std::runtime_error(msg);
    }
    std::vector<ChunkFile> files = ProtectBlocks(id, in, out);
    if (files.empty()) {
        if (mayHoldNothing) {
            protections_[static_cast<unsigned long>(id)];  // known, holding nothing
            protectionRanges_.Add(static_cast<unsigned long>(id), in, out);
            return 0;
        }
        std::string msg = Concat("Protect on track ", trackId_, ": no files were protected");
        MR_LOG(logger_, 30, msg);
        throw std::runtime_error(msg);
    }
    protectionRanges_.Add(static_cast<unsigned long>(id), in, out);
    AdaptBeginningOfTrack();
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": " << files.size() << " files protected, beginning of track is "
               << beginningOfTrack_.load());
    for (IProtectionObserver* observer : protectionObservers_) {
        observer->OnProtected(id, in, out, files);
    }
    return files.size();
}

void LoopRecordingFileManager::HoldNewestBlockLocked() {
    if (protectionRanges_.Empty() || blocks_.empty())
        return;
    auto& [key, block] = *blocks_.rbegin();
    bool held = false;
    for (unsigned long id : protectionRanges_.Covering(block)) {
        if (!block.GetProtections().insert(id).second)
            continue;
        protections_[id].insert(key);
        recyclableKeys_.erase(key);
        held = true;
        MR_LOG(logger_, 20,
               "T" << trackId_ << ": Block at " << key << " on file " << block.GetChunkFile()
                   << " protected with id " << id);
    }
    if (held)
        AdaptBeginningOfTrack();
}

unsigned long LoopRecordingFileManager::Unprotect(long id) {
    UniqueLock lock(filesMutex_);
    auto protection = protections_.find(static_cast<unsigned long>(id));
    if (protection == protections_.end()) {
        throw std::runtime_error(Concat("No protection handle ", id, " on track ", trackId_));
    }
    unsigned long freed = 0;
    {
        UniqueLock index(indexMutex_);
        for (const TimePoint& key : protection->second) {
            auto block = blocks_.find(key);
            if (block == blocks_.end()) {
                MR_LOG(logger_, 40, "Block at " << key << " should exist!");
                continue;
            }
            auto& ids = block->second.GetProtections();
            ids.erase(protection->first);
            if (ids.empty()) {
                recyclableKeys_.insert(key);
                ++freed;
            }
        }
    }
    protections_.erase(protection);
    protectionRanges_.Remove(static_cast<unsigned long>(id));
    AdaptBeginningOfTrack();
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": unprotected protection " << id << ": Beginning of track is "
               << beginningOfTrack_.load());
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
    std::lock_guard<std::mutex> db(dbMutex_);
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
    std::lock_guard<std::mutex> db(dbMutex_);
    trackDb_.SaveAndRemove(indexed);
}

std::vector<FileSystem::Chunk> LoopRecordingFileManager::StillIndexed(
    const std::vector<FileSystem::Chunk>& chunks) const {
    SharedLock index(indexMutex_);
    std::vector<FileSystem::Chunk> indexed;
    for (const FileSystem::Chunk& chunk : chunks) {
        auto block = BlockAtOrBefore(chunk.timepoint);
        FileSystem::Chunk found;
        if (block != blocks_.end() && block->second.Lookup(chunk.timepoint, found) &&
            found.location == chunk.location) {
            indexed.push_back(chunk);
        }
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
    std::lock_guard<std::mutex> db(dbMutex_);
    trackDb_.RemoveFiles(files);
}

void LoopRecordingFileManager::DestroyDatabase() {
    std::lock_guard<std::mutex> db(dbMutex_);
    trackDb_.Destroy();
}

void LoopRecordingFileManager::SetActiveMode(bool active) {
    UniqueLock files(filesMutex_);
    std::lock_guard<std::mutex> db(dbMutex_);
    if (trackDb_.IsOpen())
        trackDb_.SetActiveMode(active);
}

bool LoopRecordingFileManager::IsActive() {
    UniqueLock files(filesMutex_);
    std::lock_guard<std::mutex> db(dbMutex_);
    return trackDb_.IsOpen() && trackDb_.IsActive();
}

bool LoopRecordingFileManager::CheckInvariant() {
    SharedLock index(indexMutex_);
    bool first = true;
    TimePoint previousOut;
    for (const auto& [key, block] : blocks_) {
        if (!first && block.GetTcIn() < previousOut) {
            MR_LOG(logger_, 40,
                   "T" << trackId_ << ": Next block tcIn " << block.GetTcIn()
                       << " comes before previous block tcOut " << previousOut);
            return false;
        }
        first = false;
        previousOut = block.GetTcOut();
    }
    return true;
}

// ---------------------------------------------------------------------------
// Snapshots

std::map<TimePoint, FileSystem::Block> LoopRecordingFileManager::GetBlocks() const {
    SharedLock index(indexMutex_);
    return blocks_;
}

std::set<TimePoint> LoopRecordingFileManager::GetRecyclableKeys() const {
    SharedLock files(filesMutex_);
    return recyclableKeys_;
}

std::deque<ChunkFile> LoopRecordingFileManager::GetEmptyFiles() const {
    SharedLock files(filesMutex_);
    return emptyFiles_;
}

std::map<unsigned long, std::set<TimePoint>> LoopRecordingFileManager::GetProtections() const {
    SharedLock files(filesMutex_);
    return protections_;
}

size_t LoopRecordingFileManager::GetProtectionCount() const {
    SharedLock files(filesMutex_);
    return protections_.size();
}

void LoopRecordingFileManager::VisitBlocks(
    const std::function<void(const std::map<TimePoint, FileSystem::Block>&)>& visit) const {
    SharedLock index(indexMutex_);
    visit(blocks_);
}
