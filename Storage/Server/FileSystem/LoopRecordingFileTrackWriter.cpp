#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"

#include <sstream>
#include <stdexcept>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/StdTimer.h"
#include "Platform/Tools/SyncPoint.h"

using Moreld::File::ChunkFileHeader;
using Moreld::Time::TimePoint;

namespace {

// Bytes a writer lets its track's cache hold; never more than the budget the
// caches share, when the host set one.
constexpr unsigned long kWriterCacheBytes = 50000000;

long Milliseconds(const Moreld::Tools::StdTimer& timer) {
    return timer.GetEllapsedTime() / 1000;
}

}  // namespace

LoopRecordingFileTrackWriter::LoopRecordingFileTrackWriter(long trackId,
                                                           LoopRecordingFileManager& manager,
                                                           ThreadedChunkCache& cache)
    : trackId_(trackId),
      manager_(manager),
      cache_(cache),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingFileTrackWriter")),
      trackLock_(std::make_unique<TrackLock>(trackId)) {
    manager_.BeginWriting();
    cache_.SetTrackId(trackId_);
    cache_.SetCacheSizeInBytes(cache_.BoundWithinBudget(kWriterCacheBytes));
    cache_.SetChunkFlusher(this);
    cache_.Run();

    TimePoint last;
    if (auto handle = manager_.GetLastChunkLocation(last)) {
        FileSystem::Chunk chunk = handle->GetChunk();
        endOfTrack_ = chunk.timepoint + chunk.duration;
    }
    manager_.SetActiveMode(true);
    accumulatedDuration_ = manager_.GetAccumulatedDuration();
    if (endOfTrack_ == TimePoint()) {
        MR_LOG(logger_, 30, "T" << trackId_ << ": Writer " << this << " created. Track is empty");
    } else {
        MR_LOG(logger_, 30,
               "T" << trackId_ << ": Writer " << this << " created : last timepoint  is "
                   << endOfTrack_ << ", already stored "
                   << accumulatedDuration_.ToNanoseconds() / 1000000000 << "s of content");
    }
}

LoopRecordingFileTrackWriter::~LoopRecordingFileTrackWriter() {
    // The flusher thread writes every pending chunk before it stops.
    cache_.Stop();
    cache_.Clear();
    try {
        if (diskFailed_) {
            RepairAfterDiskFailure();
        } else if (!appender_) {
            manager_.SetActiveMode(false);
        } else if (appender_->GetNoFlush()) {
            // Left active on purpose: the last file was not properly closed.
            manager_.SetActiveMode(true);
        } else {
            const std::string name = appender_->GetFilename();
            const size_t count = currentFileChunks_.size();
            SaveCurrentFile();
            if (count != 0) {
                MR_LOG(logger_, 10,
                       "Flushing the last active file " << name << " containing " << count
                                                        << " chunks");
            }
            appender_.reset();
            manager_.SetActiveMode(false);
        }
    } catch (const std::exception& e) {
        // The track stays active: the next start checks its last file.
        MR_LOG(logger_, 50, "T" << trackId_ << ": could not save the last file: " << e.what());
    }
    manager_.EndWriting();
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": Stopping chunkCache and delete writer " << this << ", "
               << flushedChunks_ << " chunks were appended for a total size of "
               << flushedBytes_ / 1000000 << "MB. Tp out is " << endOfTrack_);
    if (monitoring_ != nullptr)
        monitoring_->Remove(workerId_);
}

void LoopRecordingFileTrackWriter::RepairAfterDiskFailure() {
    // What was written is saved first, then the index keeps only what the
    // database lists and the files hold, as after a power failure. Should
    // either fail, the track stays active and the next start repairs it.
    manager_.SetActiveMode(true);
    if (appender_ && !appender_->GetNoFlush())
        SaveCurrentFile();
    appender_.reset();
    manager_.HandlePowerFailure(trackDirectory_);
}

// A slow disk makes every chunk slow: one line a second tells as much.
bool LoopRecordingFileTrackWriter::SlowLine(std::string& suffix) {
    uint64_t suppressed = 0;
    if (!slowLines_.Allow(suppressed))
        return false;
    suffix = suppressed == 0 ? std::string()
                             : " (" + std::to_string(suppressed) + " similar lines suppressed)";
    return true;
}

void LoopRecordingFileTrackWriter::SetMonitoring(Monitoring* monitoring, long workerId) {
    monitoring_ = monitoring;
    workerId_ = workerId;
}

void LoopRecordingFileTrackWriter::SetTrackDirectory(const std::string& directory) {
    trackDirectory_ = directory;
    MR_LOG(logger_, 30, "T" << trackId_ << ": stored under directory " << directory);
}

void LoopRecordingFileTrackWriter::SetCacheSize(unsigned long bytes) {
    cache_.SetCacheSizeInBytes(bytes);
}

void LoopRecordingFileTrackWriter::DoNotFlushMoreFiles() {
    // Called while the flusher may run: the flag is only read at close.
    if (appender_)
        appender_->SetNoFlush(true);
}

void LoopRecordingFileTrackWriter::CheckAndThrow(const TimePoint& t, const TimePoint& duration) {
    if (duration <= TimePoint()) {
        std::ostringstream msg;
        msg << "T" << trackId_ << ": Duration must be strictly positive, you set "
            << duration.ToDurationString();
        if (duration == TimePoint())
            msg << ", which means you set 0 or you set nothing";
        MR_LOG(logger_, 50, msg.str());
        throw MoreldStorageApi::InvalidArgumentError(msg.str());
    }
    TimePoint end;
    if (!TimePoint::CheckedAdd(t, duration, end)) {
        std::ostringstream msg;
        msg << "T" << trackId_ << ": Chunk at " << t << " (" << t.ToNanoseconds() << "ns) lasting "
            << duration.ToDurationString() << " ends after the last time point";
        MR_LOG(logger_, 50, msg.str());
        throw MoreldStorageApi::InvalidArgumentError(msg.str());
    }
    TimePoint accumulated;
    if (!TimePoint::CheckedAdd(accumulatedDuration_, duration, accumulated)) {
        // Reachable: a clear takes chunks away, their durations stay counted.
        std::ostringstream msg;
        msg << "T" << trackId_ << ": Chunk at " << t << " lasting " << duration.ToDurationString()
            << ": the accumulated duration of the track would overflow";
        MR_LOG(logger_, 50, msg.str());
        throw MoreldStorageApi::InvalidArgumentError(msg.str());
    }
    if (t < endOfTrack_) {
        std::ostringstream msg;
        msg << "T" << trackId_ << ": Chunk's timepoint " << t << " is < end of track "
            << endOfTrack_;
        MR_LOG(logger_, 50, msg.str());
        throw MoreldStorageApi::InvalidArgumentError(msg.str());
    }
}

void LoopRecordingFileTrackWriter::CheckRoom(const TimePoint& t, unsigned long size) {
    std::ostringstream msg;
    const unsigned long fileSize = manager_.GetFileSize();
    if (manager_.GetMaxTrackSize() == 0) {
        // The index's own words for it.
        msg << "You must call GrowTrack to store chunks at " << t.ToString() << " for track "
            << trackId_;
        MR_LOG(logger_, 50, msg.str());
        throw MoreldStorageApi::StoreBusyError(msg.str());
    }
    if (fileSize < ChunkFileHeader::kSize || size > fileSize - ChunkFileHeader::kSize) {
        msg << "T" << trackId_ << ": Chunk at " << t << " takes " << size << "B on file: files of "
            << fileSize << "B cannot hold a chunk of size " << size;
        MR_LOG(logger_, 50, msg.str());
        throw MoreldStorageApi::InvalidArgumentError(msg.str());
    }
}

void LoopRecordingFileTrackWriter::CountLoss(const TimePoint& t, const std::string& reason) {
    Moreld::Tools::MutexLock lock(lossMutex_);
    if (lostChunks_++ == 0) {
        std::ostringstream first;
        first << t << ": " << reason;
        firstLoss_ = first.str();
    }
}

void LoopRecordingFileTrackWriter::ThrowLosses() {
    std::ostringstream msg;
    {
        Moreld::Tools::MutexLock lock(lossMutex_);
        if (lostChunks_ == 0)
            return;
        msg << "T" << trackId_ << ": " << lostChunks_
            << " chunks accepted could not be stored, the first at " << firstLoss_
            << " (this writer stored " << storedChunks_.load() << " chunks)";
        lostChunks_ = 0;
    }
    MR_LOG(logger_, 50, msg.str());
    throw MoreldStorageApi::DataLossError(msg.str());
}

void LoopRecordingFileTrackWriter::WaitUntilStored(long& stored) {
    // Stopping drains the flusher thread; the writer goes on with a new one.
    cache_.Stop();
    cache_.Run();
    stored = static_cast<long>(storedChunks_.load());
    ThrowLosses();
}

void LoopRecordingFileTrackWriter::Append(const Protocol::Chunk& message) {
    Moreld::Tools::StdTimer total;
    auto chunk = cache_.MakeChunk();
    // The host hands the message over: its payload is moved, never copied,
    // and the message gets a reused buffer for the host's next chunk.
    Moreld::Plexa::Converter::Swap(*chunk, const_cast<Protocol::Chunk&>(message));
    const TimePoint t = chunk->GetTimePoint();
    const TimePoint duration = chunk->GetDuration();
    std::string suppressed;
    if (Milliseconds(total) > 10 && SlowLine(suppressed)) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": Copy chunk took " << Milliseconds(total) << "ms for chunk "
                   << appendedChunks_ << " at " << t << suppressed);
    }
    ThrowLosses();
    if (diskFailed_) {
        throw std::runtime_error("T" + std::to_string(trackId_) +
                                 ": the writer stopped storing after a failure to write its "
                                 "file; open a new writer");
    }
    CheckAndThrow(t, duration);
    const unsigned long size = chunk->GetSizeOnFile();
    CheckRoom(t, size);
    ++appendedChunks_;

    Moreld::Tools::StdTimer insertion;
    const bool waited = cache_.Insert(chunk, t, size);
    if (waited && SlowLine(suppressed)) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": We had to wait to insert in cache for chunk "
                   << appendedChunks_ << " at " << t << suppressed);
    }
    if (Milliseconds(insertion) > 10 && SlowLine(suppressed)) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": Insert in cache took " << Milliseconds(insertion)
                   << "ms for chunk " << appendedChunks_ << " at " << t << suppressed);
    }
    endOfTrack_ = t + duration;
    accumulatedDuration_ += duration;
    if (Milliseconds(total) > 20 && SlowLine(suppressed)) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": Append took " << Milliseconds(total) << "ms for chunk "
                   << appendedChunks_ << " at " << t << suppressed);
    }
}

FileSystem::Chunk LoopRecordingFileTrackWriter::Flush(
    std::shared_ptr<Moreld::Plexa::DataChunk> chunk) {
    if (!chunk)
        return FileSystem::Chunk();  // cleared from the cache meanwhile
    const TimePoint t = chunk->GetTimePoint();
    const TimePoint duration = chunk->GetDuration();
    const unsigned long size = chunk->GetSizeOnFile();
    Moreld::Tools::StdTimer timer;
    ++flushedChunks_;
    if (diskFailed_) {
        cache_.HandleChunk(t, false);
        CountLoss(t, "the writer stopped storing after a failure to write its file");
        return FileSystem::Chunk();
    }
    try {
        if (cacheIsWaiting_)
            MR_LOG(logger_, 30, "About to Append chunk at " << t);
        FileSystem::Chunk record = manager_.Append(t, duration, size);
        LOOPSTORE_SYNC_POINT("LoopRecordingFileTrackWriter::Flush:Placed");
        std::string suppressed;
        if (Milliseconds(timer) > 20 && SlowLine(suppressed)) {
            MR_LOG(logger_, 40,
                   "T" << trackId_ << ": Manager took " << Milliseconds(timer) << "ms for chunk "
                       << flushedChunks_ << " at " << t << suppressed);
        }
        if (monitoring_ != nullptr)
            monitoring_->Log(workerId_, size);
        if (!WritePlaced(*chunk, record))
            return FileSystem::Chunk();
        MR_LOG(logger_, 10,
               "T" << trackId_ << ": Saved chunk " << flushedChunks_ << " at " << t << " of size "
                   << size << " on file " << record.location.file);
        flushedBytes_ += size;
        return record;
    } catch (const std::runtime_error& e) {
        // Never leave the cache blocked on a chunk that cannot be written.
        cache_.HandleChunk(t, false);
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": Exception caught in threadfor chunk at " << t << ": "
                   << e.what());
        CountLoss(t, e.what());
        return FileSystem::Chunk();
    }
}

bool LoopRecordingFileTrackWriter::WritePlaced(const Moreld::Plexa::DataChunk& data,
                                               const FileSystem::Chunk& record) {
    try {
        WriteChunk(data, record);
        return true;
    } catch (const std::runtime_error& e) {
        // The index names a chunk its file does not hold, and the appender
        // no longer follows the index: storing more would only lose more.
        // The writer stops; its close repairs the index from the files.
        cache_.HandleChunk(data.GetTimePoint(), false);
        CountLoss(data.GetTimePoint(), e.what());
        diskFailed_ = true;
        MR_LOG(logger_, 50,
               "T" << trackId_ << ": Writer " << this << " stops storing: " << e.what());
        return false;
    }
}

std::string LoopRecordingFileTrackWriter::FileNameOf(const FileSystem::Chunk& record) const {
    return record.location.file.GetAbsoluteFileName(trackDirectory_, false);
}

void LoopRecordingFileTrackWriter::SaveCurrentFile() {
    // The finished file is durable before the database says its chunks exist.
    if (saveOnFile_ && !appender_->GetNoFlush())
        appender_->Sync();
    LOOPSTORE_SYNC_POINT("LoopRecordingFileTrackWriter::SaveCurrentFile:Saving");
    manager_.SaveAndRemove(currentFileChunks_);
    LOOPSTORE_SYNC_POINT("LoopRecordingFileTrackWriter::SaveCurrentFile:Saved");
}

void LoopRecordingFileTrackWriter::HandleCurrentFileChunks() {
    for (const FileSystem::Chunk& chunk : currentFileChunks_)
        cache_.HandleChunk(chunk.timepoint, false);
    currentFileChunks_.clear();
}

void LoopRecordingFileTrackWriter::FinishFile(const FileSystem::Chunk& record) {
    const std::string name = FileNameOf(record);
    const uint64_t fileSize = static_cast<uint64_t>(record.location.file.Size());
    if (record.location.chunkIndex != 0) {
        MR_LOG(logger_, 40,
               "T" << trackId_ << ": Appender on new file " << name
                   << " but at non-zero index: " << record.location.chunkIndex);
        SaveCurrentFile();
        appender_ = std::make_unique<Moreld::File::DataChunkFileAppender>(name, true, fileSize);
        HandleCurrentFileChunks();
        return;
    }
    const bool waiting = cacheIsWaiting_;
    SaveCurrentFile();
    MR_LOG(logger_, waiting ? 30 : 10,
           "T" << trackId_ << ": Flushing file " << appender_->GetFilename() << " containing "
               << currentFileChunks_.size() << " chunks");
    appender_ = std::make_unique<Moreld::File::DataChunkFileAppender>(name, true, fileSize);
    if (waiting) {
        MR_LOG(logger_, 30,
               "T" << trackId_ << ": Chunks are flushed, we call HandleChunk on the cache");
    }
    const size_t count = currentFileChunks_.size();
    HandleCurrentFileChunks();
    if (waiting) {
        MR_LOG(logger_, 30,
               "T" << trackId_ << ": HandledChunk has been called for the " << count << " chunks");
    }
}

void LoopRecordingFileTrackWriter::OpenFirstFile(const FileSystem::Chunk& record) {
    const std::string name = FileNameOf(record);
    const uint64_t fileSize = static_cast<uint64_t>(record.location.file.Size());
    if (record.location.chunkIndex == 0) {
        appender_ = std::make_unique<Moreld::File::DataChunkFileAppender>(name, false, fileSize);
        return;
    }
    // The track ends inside a partly written file: continue it, and rebuild
    // the list of its chunks so that the file is saved whole when it ends.
    MR_LOG(logger_, 30,
           "T" << trackId_ << ": Appender on existing file " << name << " at index "
               << record.location.chunkIndex);
    appender_ = std::make_unique<Moreld::File::DataChunkFileAppender>(name, true, fileSize);
    for (const TimePoint& tp : appender_->GetTimePoints()) {
        if (auto handle = manager_.Lookup(tp)) {
            currentFileChunks_.push_back(handle->GetChunk());
            currentFileChunks_.back().location.file.SetFromEmptyFile(false);  // chunk rows exist
        } else {
            MR_LOG(logger_, 40,
                   "T" << trackId_ << ": Chunk at " << tp
                       << " should have been found in the database");
        }
    }
}

void LoopRecordingFileTrackWriter::DropRecycledCurrentFile() {
    // The index recycled the file being written (every other block was
    // protected): its chunks left the index and must not reach the database.
    appender_->SetNoFlush(true);
    appender_.reset();
    HandleCurrentFileChunks();
}

void LoopRecordingFileTrackWriter::WriteChunk(const Moreld::Plexa::DataChunk& data,
                                              const FileSystem::Chunk& record) {
    if (appender_ && !currentFileChunks_.empty() && record.location.chunkIndex == 0 &&
        currentFileChunks_.back().location.file == record.location.file) {
        DropRecycledCurrentFile();
    }
    if (appender_ && !currentFileChunks_.empty() &&
        currentFileChunks_.back().location.file != record.location.file) {
        FinishFile(record);
    }
    if (!appender_)
        OpenFirstFile(record);
    if (!saveOnFile_)
        appender_->SetNoFlush(true);
    // The record goes exactly where the index placed it; at offset 16 it
    // begins a new generation of the file, so an older block's records can
    // never be read back with the new ones.
    if (!appender_->Append(data, record.location.offset)) {
        std::ostringstream msg;
        msg << "T" << trackId_ << ": Could not Append chunk at " << data.GetTimePoint() << " on "
            << appender_->GetFilename();
        throw std::runtime_error(msg.str());
    }
    ++storedChunks_;
    currentFileChunks_.push_back(record);
    if (currentFileChunks_.size() == 1) {
        // The batch's first chunk tells the database what the file's rows
        // were: an empty file's row, or chunk rows. A file continued from an
        // earlier writer already has chunk rows, whatever flag the index
        // kept from when its block was opened: they must be replaced, not
        // added to.
        currentFileChunks_.front().location.file.SetFromEmptyFile(
            record.location.chunkIndex == 0 && record.location.file.IsFromEmptyFile());
    }
    // Written, so evictable: readers find it in the file through the index.
    // Waiting for the whole file to be saved would let a file larger than the
    // cache fill it with unhandled chunks, and Append would wait forever.
    cache_.HandleChunk(data.GetTimePoint(), false);
    LOOPSTORE_SYNC_POINT("LoopRecordingFileTrackWriter::WriteChunk:Written");
}
