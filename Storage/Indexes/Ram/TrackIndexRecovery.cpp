#include "Storage/Indexes/Ram/TrackIndexRecovery.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/StrCat.h"
#include "Platform/Tools/WriterLock.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

using Moreld::Time::TimePoint;

namespace {

using UniqueLock = Moreld::Tools::WriterLock<>;

}  // namespace

void TrackIndexRecovery::LoadEmptyFiles() {
    Moreld::Tools::MutexLock db(m_.dbMutex_);
    std::vector<ChunkFile> blockFiles;
    for (const auto& [key, block] : m_.blocks_)
        blockFiles.push_back(block.GetChunkFile());
    auto listedIn = [](const auto& files, const ChunkFile& file) {
        return std::find(files.begin(), files.end(), file) != files.end();
    };
    for (const ChunkFile& file : m_.trackDb_.GetAllEmptyFiles()) {
        const bool inBlock = listedIn(blockFiles, file);
        if (!inBlock && !listedIn(m_.emptyFiles_, file)) {
            m_.emptyFiles_.push_back(file);
            m_.counters_.maxTrackSize += static_cast<unsigned long>(file.Size());
            m_.NoteFileSize(file);
            continue;
        }
        // Left by a version that could list a file twice: it counts once,
        // and its rows are made to agree (chunks win over an empty listing).
        MR_LOG(m_.logger_, 40,
               "T" << m_.trackId_ << ": file " << file
                   << " is listed more than once in the database; it is counted once");
        if (inBlock)
            m_.trackDb_.RemoveEmptyFile(file);
        else
            m_.trackDb_.AddEmptyFile(file);
    }
}

// Rows of one file are consecutive: they are written in one batch per file.
// The rows are streamed and one file's worth is held at a time, so that each
// block is built at its final size.
void TrackIndexRecovery::LoadBlocks(unsigned long& chunkCount) {
    std::vector<FileSystem::Chunk> rows;
    Moreld::Tools::MutexLock db(m_.dbMutex_);
    // The rows are indexed on this thread, under the locks it holds.
    m_.trackDb_.ForEachChunk(
        [&](const FileSystem::Chunk& chunk) REQUIRES(m_.filesMutex_, m_.indexMutex_) {
            if (!rows.empty() && rows.front().location.file != chunk.location.file) {
                chunkCount += IndexFileRows(rows);
                rows.clear();
            }
            rows.push_back(chunk);
        });
    if (!rows.empty())
        chunkCount += IndexFileRows(rows);
}

size_t TrackIndexRecovery::IndexFileRows(const std::vector<FileSystem::Chunk>& rows) {
    const ChunkFile& file = rows.front().location.file;
    FileSystem::Block block(BlockConfiguration(static_cast<unsigned long>(file.Size()), 0));
    block.Reserve(rows.size());
    size_t indexed = 0;
    for (const FileSystem::Chunk& chunk : rows) {
        if (block.Append(chunk)) {
            ++indexed;
        } else {
            MR_LOG(m_.logger_, 40,
                   "T" << m_.trackId_ << ": Chunk " << chunk
                       << " does not fit its block and is not indexed");
        }
    }
    if (!block.Empty())
        m_.IndexBlock(std::move(block));
    return indexed;
}

void TrackIndexRecovery::OpenDatabase(const std::string& directory) {
    {
        Moreld::Tools::MutexLock db(m_.dbMutex_);
        if (!m_.trackDb_.Open(directory, m_.trackId_)) {
            throw std::runtime_error(
                Moreld::Tools::StrCat("Could not open DB on track ", m_.trackId_));
        }
    }
    UniqueLock files(m_.filesMutex_);
    UniqueLock index(m_.indexMutex_);
    unsigned long chunkCount = 0;
    LoadBlocks(chunkCount);
    LoadEmptyFiles();
    // The database keeps neither sequence numbers nor accumulated durations:
    // number the chunks again in time order, so that counts and durations
    // between two instants hold across a restart.
    TimePoint accumulated;
    unsigned long sequence = 0;
    for (auto& [key, block] : m_.blocks_)
        block.Restamp(accumulated, sequence);
    m_.counters_.accumulatedDuration = accumulated;
    m_.counters_.chunkCounter = static_cast<long>(sequence);
    if (chunkCount == 0) {
        MR_LOG(
            m_.logger_, 30,
            "T" << m_.trackId_ << ": " << m_.emptyFiles_.size() << " empty files. Track is empty");
        Moreld::Tools::MutexLock db(m_.dbMutex_);
        m_.trackDb_.SetActiveMode(false);
    } else {
        MR_LOG(m_.logger_, 30,
               "T" << m_.trackId_ << ": " << m_.emptyFiles_.size() << " empty files and "
                   << chunkCount << " chunks in " << m_.blocks_.size() << " files from "
                   << m_.blocks_.begin()->second.GetTcIn() << " to "
                   << m_.blocks_.rbegin()->second.GetTcOut() << ". Max track size is "
                   << m_.counters_.maxTrackSize.load() / 1000000 << "MB.");
    }
    m_.AdaptBeginningOfTrack();
}

std::set<TimePoint> TrackIndexRecovery::TimePointsInFile(const std::string& root,
                                                         const ChunkFile& file) {
    const std::string name = file.GetAbsoluteFileName(root, false);
    MR_LOG(m_.logger_, 30, "T" << m_.trackId_ << ": scanning file " << name << " ...");
    try {
        Moreld::File::DataChunkFileAppender appender(name, true,
                                                     static_cast<uint64_t>(file.Size()));
        appender.SetNoFlush(true);  // nothing is written: no need to sync
        return appender.GetTimePoints();
    } catch (const std::exception& e) {
        // An unreadable file holds nothing we can serve.
        MR_LOG(m_.logger_, 50,
               "T" << m_.trackId_ << ": could not read " << name << ": " << e.what());
        return {};
    }
}

size_t TrackIndexRecovery::ReadableChunks(const std::string& root, const FileSystem::Block& block,
                                          bool& matches) {
    const ChunkFile file = block.GetChunkFile();
    const std::set<TimePoint> present = TimePointsInFile(root, file);
    // A file's records are read back up to the first damaged one, and the
    // listed chunks are its first records: what reads back is a prefix.
    size_t readable = 0;
    std::vector<TimePoint> missing;
    for (const auto& [tp, chunk] : block.GetChunks()) {
        if (present.count(tp) == 0)
            missing.push_back(tp);
        else if (missing.empty())
            ++readable;
    }
    matches = block.GetChunkNumber() == present.size() && missing.empty();
    if (matches) {
        MR_LOG(m_.logger_, 30,
               "T" << m_.trackId_ << ": File " << file
                   << " matches the DB: end of track is in a valid state");
        return readable;
    }
    MR_LOG(m_.logger_, 30,
           "T" << m_.trackId_ << ": Block at " << block.GetTcIn() << " has "
               << block.GetChunkNumber() << " chunks while its file " << file << " has "
               << present.size() << " chunks");
    for (const TimePoint& tp : missing) {
        MR_LOG(m_.logger_, 30,
               "T" << m_.trackId_ << ": Chunk at " << tp << " is not present in file " << file);
    }
    return readable;
}

void TrackIndexRecovery::DropNewestBlock(const FileSystem::Block& block) {
    ChunkFile file = block.GetChunkFile();
    file.SetFromEmptyFile(true);
    MR_LOG(m_.logger_, 30, "T" << m_.trackId_ << ": File " << file << " is put back as empty file");
    m_.emptyFiles_.push_back(file);
    {
        Moreld::Tools::MutexLock db(m_.dbMutex_);
        m_.trackDb_.RemoveAndAddAsEmptyFile(file);
    }
    const TimePoint key = block.GetTcIn();
    m_.counters_.trackSize = m_.counters_.trackSize.load() + Moreld::File::ChunkFileHeader::kSize -
                             block.GetCurrentSize();
    m_.recyclableKeys_.erase(key);
    m_.blocks_.erase(key);
}

void TrackIndexRecovery::KeepFirstChunks(const FileSystem::Block& block, size_t kept) {
    MR_LOG(m_.logger_, 30,
           "T" << m_.trackId_ << ": " << kept << " of the " << block.GetChunkNumber()
               << " chunks of block at " << block.GetTcIn() << " are kept in file "
               << block.GetChunkFile());
    if (kept == block.GetChunkNumber())
        return;  // only records that were never listed are left out
    FileSystem::Block trimmed(block.GetConfiguration());
    std::vector<FileSystem::Chunk> rows;
    for (const auto& [tp, chunk] : block.GetChunks()) {
        if (rows.size() == kept)
            break;
        trimmed.Append(chunk);
        rows.push_back(chunk);
    }
    {
        // The file's rows become exactly the chunks kept.
        Moreld::Tools::MutexLock db(m_.dbMutex_);
        m_.trackDb_.SaveAndRemove(rows);
    }
    m_.counters_.trackSize =
        m_.counters_.trackSize.load() + trimmed.GetCurrentSize() - block.GetCurrentSize();
    // Assignment keeps the protections of the indexed block.
    m_.blocks_.at(block.GetTcIn()) = trimmed;
}

void TrackIndexRecovery::HandlePowerFailure(const std::string& root) {
    MR_LOG(m_.logger_, 30, "T" << m_.trackId_ << ": Power failure detected");
    UniqueLock files(m_.filesMutex_);
    UniqueLock index(m_.indexMutex_);
    // Newest first: a block keeps the listed chunks its file reads back; one
    // that keeps none is dropped and the block before it is checked too.
    // Only listed chunks are kept: records written after the file's last
    // save (a continued file's tail) were never listed, and the next writer
    // writes over them.
    while (!m_.blocks_.empty()) {
        const FileSystem::Block newest = m_.blocks_.rbegin()->second;
        bool matches = false;
        const size_t readable = ReadableChunks(root, newest, matches);
        if (matches)
            break;
        if (readable == 0) {
            DropNewestBlock(newest);
            continue;
        }
        KeepFirstChunks(newest, readable);
        break;
    }
    if (!m_.blocks_.empty()) {
        const FileSystem::Block& newest = m_.blocks_.rbegin()->second;
        m_.counters_.endOfTrack = newest.GetTcOut();
        m_.counters_.accumulatedDuration = newest.GetLastChunk().accumulatedDuration;
        m_.counters_.chunkCounter = static_cast<long>(newest.GetLastChunk().sequenceNumber) + 1;
    }
    m_.AdaptBeginningOfTrack();
    MR_LOG(m_.logger_, 30, "T" << m_.trackId_ << ": Power failure recovery over");
    MR_LOG(m_.logger_, 30,
           "T" << m_.trackId_ << ": " << m_.emptyFiles_.size() << " empty files and "
               << m_.blocks_.size() << " blocks. Track goes now from "
               << m_.counters_.beginningOfTrack.load() << " to " << m_.counters_.endOfTrack.load());
    Moreld::Tools::MutexLock db(m_.dbMutex_);
    m_.trackDb_.SetActiveMode(false);
}
