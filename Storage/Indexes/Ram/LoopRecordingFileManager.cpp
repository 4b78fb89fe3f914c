#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

#include <algorithm>
#include <stdexcept>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/StrCat.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/Ram/BlockNavigation.h"
#include "Storage/Indexes/Ram/ChunkPlacer.h"
#include "Storage/Indexes/Ram/TrackSpan.h"

using Moreld::File::ChunkFileHeader;
using Moreld::Time::TimePoint;
using Moreld::Tools::StrCat;

LoopRecordingFileManager::LoopRecordingFileManager(long trackId)
    : trackId_(trackId),
      logger_(*tav::mr::logging::LoggingManager::GetLoggerPtr("LoopRecordingFileManager")),
      protections_(trackId, logger_) {}

LoopRecordingFileManager::~LoopRecordingFileManager() = default;

TrackFileBook LoopRecordingFileManager::Book() {
    return TrackFileBook(blocks_, emptyFiles_, recyclableKeys_, trackId_, logger_);
}

// ---------------------------------------------------------------------------
// Appending

ChunkPlacer LoopRecordingFileManager::Placer() {
    return ChunkPlacer(blocks_, counters_, trackId_, logger_);
}

void LoopRecordingFileManager::CheckAfterEndOfTrack(const TimePoint& tp) {
    Placer().CheckAfterEndOfTrack(tp);
}

FileSystem::Chunk LoopRecordingFileManager::Append(const TimePoint& tp, const TimePoint& duration,
                                                   unsigned long size) {
    CheckAfterEndOfTrack(tp);
    {
        // The common case: one map insertion under one lock. Every operation
        // that erases blocks holds indexMutex_ exclusively too.
        UniqueLock index(indexMutex_);
        if (FileSystem::Block* last = Placer().NewestWithRoom(size))
            return AppendInBlockLocked(*last, tp, duration, size);
    }
    bool empty;
    {
        SharedLock index(indexMutex_);
        empty = blocks_.empty();
    }
    if (empty)
        return AppendFirstChunk(tp, duration, size);
    return AppendInNewBlock(tp, duration, size);
}

FileSystem::Chunk LoopRecordingFileManager::AppendInNewBlock(const TimePoint& tp,
                                                             const TimePoint& duration,
                                                             unsigned long size) {
    UniqueLock files(filesMutex_);
    if (protections_.HasRanges()) {
        // The block being closed may have grown into a protection's range
        // since it opened: it is held before a file is chosen for recycling.
        UniqueLock index(indexMutex_);
        HoldNewestBlockLocked();
    }
    TrackFileBook::FileChoice choice = Book().ChooseForNewBlock(tp, size, loopRecording_);
    if (choice.recycled && durableRecycling_) {
        ForgetRecycledFile(choice.file);
        // The database now lists the file as empty: its new chunks replace that row.
        choice.file.SetFromEmptyFile(true);
    }
    UniqueLock index(indexMutex_);
    counters_.trackSize -= Book().Release(choice);
    if (choice.recycled)
        activity_.CountRecycledFile();
    return AppendFirstInBlockLocked(choice.file, tp, duration, size, false);
}

void LoopRecordingFileManager::ForgetRecycledFile(const ChunkFile& file) {
    // The file is about to be rewritten: its old rows must not survive a crash
    // that happens before its new chunks are saved. The track database's
    // commits are durable, and this one must be before the file's first new
    // record is written, as those may reach the disk at any moment.
    Moreld::Tools::MutexLock db(dbMutex_);
    trackDb_.RemoveAndAddAsEmptyFile(file);
    LOOPSTORE_SYNC_POINT("LoopRecordingFileManager::ForgetRecycledFile:Committed");
}

FileSystem::Chunk LoopRecordingFileManager::AppendFirstChunk(const TimePoint& tp,
                                                             const TimePoint& duration,
                                                             unsigned long size) {
    UniqueLock files(filesMutex_);
    ChunkFile file = Book().FirstEmptyFile(tp, size, loopRecording_);
    emptyFiles_.pop_front();
    UniqueLock index(indexMutex_);
    return AppendFirstInBlockLocked(file, tp, duration, size, true);
}

// With filesMutex_ and indexMutex_ held exclusively, `file` taken from
// where it was.
FileSystem::Chunk LoopRecordingFileManager::AppendFirstInBlockLocked(const ChunkFile& file,
                                                                     const TimePoint& tp,
                                                                     const TimePoint& duration,
                                                                     unsigned long size,
                                                                     bool trackStarts) {
    FileSystem::Block& block = Book().OpenBlock(tp, file);
    FileSystem::Chunk chunk =
        Placer().AppendFirstInBlock(block, file, tp, duration, size, trackStarts);
    NotePlaced(file);
    activity_.CountChunk(size);
    recyclableKeys_.insert(tp);
    AdaptBeginningOfTrack();
    HoldNewestBlockLocked();
    return chunk;
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
    FileSystem::Chunk chunk = Placer().AppendInBlock(block, tp, duration, size);
    NotePlaced(chunk.location.file);
    activity_.CountChunk(chunk.location.size);
    return chunk;
}

void LoopRecordingFileManager::NoteFileSize(const ChunkFile& file) {
    const unsigned long size = static_cast<unsigned long>(file.Size());
    unsigned long known = counters_.fileSize.load();
    while (size > known && !counters_.fileSize.compare_exchange_weak(known, size)) {
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

TrackFileBook::Keep LoopRecordingFileManager::KeepFileBeingWritten() const {
    // The book calls it on this thread, under the locks its caller holds.
    return [this](const ChunkFile& file)
               REQUIRES_SHARED(indexMutex_) { return IsBeingWritten(file); };
}

void LoopRecordingFileManager::CountFreed(const TrackFileBook::Freed& freed) {
    counters_.trackSize -= freed.payload;
    counters_.maxTrackSize -= freed.fileBytes;
}

bool LoopRecordingFileManager::IndexBlock(FileSystem::Block block) {
    if (block.GetTcOut() > counters_.endOfTrack.load())
        counters_.endOfTrack = block.GetTcOut();
    if (blocks_.count(block.GetTcIn()) != 0) {
        MR_LOG(logger_, 50,
               "T" << trackId_ << ": Block at tp IN " << block.GetTcIn()
                   << " is already indexed, we don't index it twice.");
        return false;
    }
    const TimePoint key = block.GetTcIn();
    const bool recyclable = block.GetProtections().empty();
    counters_.trackSize += block.GetCurrentSize() - ChunkFileHeader::kSize;
    counters_.maxTrackSize += static_cast<unsigned long>(block.GetChunkFile().Size());
    NoteFileSize(block.GetChunkFile());
    blocks_.emplace(key, std::move(block));
    if (recyclable)
        recyclableKeys_.insert(key);
    return true;
}

void LoopRecordingFileManager::AdaptBeginningOfTrack() {
    counters_.beginningOfTrack = recyclableKeys_.empty() ? TimePoint() : *recyclableKeys_.begin();
}

void LoopRecordingFileManager::SetChunkProtectionFactory(IChunkProtectionFactory* factory) {
    chunkProtectionFactory_ = factory;
}

unsigned long LoopRecordingFileManager::GetSizeOnRam() const {
    SharedLock index(indexMutex_);
    return BlockNavigation(blocks_).SizeOnRam();
}

// ---------------------------------------------------------------------------
// Lookup and navigation. Searches hold indexMutex_ shared, including the call
// to the protection factory, and cover every block, protected ones included.

void LoopRecordingFileManager::CheckFactory() const {
    if (chunkProtectionFactory_.load() == nullptr) {
        throw std::runtime_error(StrCat(
            "ChunkProtection factory not set in LoopRecordingFileManager on track ", trackId_));
    }
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::MakeHandle(
    const std::optional<FileSystem::Chunk>& chunk, TimePoint* found) const {
    if (!chunk)
        return nullptr;
    if (found != nullptr)
        *found = chunk->timepoint;
    return chunkProtectionFactory_.load()->Create(*chunk);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::Lookup(TimePoint tp) {
    CheckFactory();
    MR_LOG(logger_, 10, "Lookup at " << tp);
    SharedLock index(indexMutex_);
    return MakeHandle(BlockNavigation(blocks_).Lookup(tp), nullptr);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::Next(TimePoint tp, TimePoint& found) {
    CheckFactory();
    MR_LOG(logger_, 10, "Next at " << tp);
    SharedLock index(indexMutex_);
    return MakeHandle(BlockNavigation(blocks_).Next(tp), &found);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::Previous(TimePoint tp, TimePoint& found) {
    CheckFactory();
    MR_LOG(logger_, 10, "Previous at " << tp);
    SharedLock index(indexMutex_);
    return MakeHandle(BlockNavigation(blocks_).Previous(tp), &found);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::GetFirstChunkLocation(
    TimePoint& found) const {
    CheckFactory();
    SharedLock index(indexMutex_);
    std::optional<FileSystem::Chunk> first = BlockNavigation(blocks_).First();
    if (!first)
        MR_LOG(logger_, 20, "T" << trackId_ << ": Cannot get first ChunkLocation: track is empty");
    return MakeHandle(first, &found);
}

IFileSystemManager::ChunkHandle LoopRecordingFileManager::GetLastChunkLocation(
    TimePoint& found) const {
    CheckFactory();
    SharedLock index(indexMutex_);
    std::optional<FileSystem::Chunk> last = BlockNavigation(blocks_).Last();
    if (!last)
        MR_LOG(logger_, 20, "T" << trackId_ << ": Cannot get last ChunkLocation: track is empty");
    return MakeHandle(last, &found);
}

unsigned long LoopRecordingFileManager::GetNumberOfChunks(const TimePoint& from,
                                                          const TimePoint& to) {
    return TrackSpan(*this).CountChunks(from, to);
}

TimePoint LoopRecordingFileManager::GetAccumulatedDuration(const TimePoint& from,
                                                           const TimePoint& to) {
    return TrackSpan(*this).Duration(from, to);
}

bool LoopRecordingFileManager::HasFile(const ChunkFile& file) {
    UniqueLock files(filesMutex_);
    std::vector<ChunkFile> empties;
    {
        // The database, not the RAM queue, is asked: a file handed to the
        // track counts once it is recorded there.
        Moreld::Tools::MutexLock db(dbMutex_);
        empties = trackDb_.GetAllEmptyFiles();
    }
    if (std::find(empties.begin(), empties.end(), file) != empties.end())
        return true;
    SharedLock index(indexMutex_);
    return BlockNavigation(blocks_).HoldsFile(file);
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
    return protections_.GetIds();
}

size_t LoopRecordingFileManager::GetProtectionCount() const {
    SharedLock files(filesMutex_);
    return protections_.GetIds().size();
}

void LoopRecordingFileManager::VisitBlocks(
    const std::function<void(const std::map<TimePoint, FileSystem::Block>&)>& visit) const {
    SharedLock index(indexMutex_);
    visit(blocks_);
}
