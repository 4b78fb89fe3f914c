#pragma once

#include <cstdint>
#include <set>
#include <string>

#include <memory>
#include "Platform/File/ChunkFileHeader.h"

#include "Platform/File/File.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Time/TimePoint.h"

namespace Moreld::File {

// Appends chunks as records to one preallocated chunk file (format in
// doc/chunk_file_format.md) and tells which chunks the file holds.
//
// A file holds the records of its current generation, from offset 16 up to
// the first invalid record (the tail). A record written at offset 16 always
// begins a new generation, which hides every older record of the file at
// once, so a recycled file never mixes an old block with a new one.
//
// Nothing is written before the first Append: opening a file only to read
// its time points (power-failure recovery) leaves it untouched. The file's
// size is never changed; records must fit in min(fileSize, real size).
//
// Owns its file descriptor. Not thread-safe: one thread at a time, which need
// not be the one that built it.
class DataChunkFileAppender {
  public:
    // Opens the existing file `fileName` read-write and reads its header.
    // `keepContent` false: the content is stale and the first Append(chunk)
    // begins a new generation at offset 16. `keepContent` true: Append(chunk)
    // continues after the last valid record of the current generation (found
    // by a scan the first time it is needed). Throws std::runtime_error
    // "Cannot open chunk file <name>: <strerror>", or another naming the file
    // when the header cannot be read.
    DataChunkFileAppender(const std::string& fileName, bool keepContent, uint64_t fileSize);
    // Makes the appended records durable (fdatasync) unless the no-flush flag
    // is set or nothing was written since the last Sync, then closes. Never throws: failures are
    // logged at level 50.
    ~DataChunkFileAppender();
    DataChunkFileAppender(const DataChunkFileAppender&) = delete;
    DataChunkFileAppender& operator=(const DataChunkFileAppender&) = delete;

    // Appends `chunk` at GetTail(). Returns false, writing nothing, when the
    // record would not fit before the end of the file. Throws
    // std::runtime_error naming the file on an I/O error; the current
    // generation then ends before the failed record.
    bool Append(const Moreld::Plexa::DataChunk& chunk);
    // Appends `chunk` at `offset`, where the caller's index placed it: offset
    // 16 begins a new generation there; any other offset must be GetTail() or
    // the end of an earlier record of the current generation, and the
    // records after it then leave the generation (an index that dropped them
    // writes over them). Returns false, writing nothing, for another offset
    // or when the record would not fit. Errors as Append(chunk).
    bool Append(const Moreld::Plexa::DataChunk& chunk, uint64_t offset);

    // The time points of the valid records of the current generation, in
    // order, including those appended here. Before the first Append this is
    // what the file holds on disk, whatever `keepContent` said. Checksums are
    // verified: a torn record never counts. Throws on an I/O error.
    std::set<Moreld::Time::TimePoint> GetTimePoints() const;
    // Offset at which Append(chunk) would write.
    uint64_t GetTail() const;
    // The current generation; 0 when the file has none yet (fresh file).
    uint64_t GetGeneration() const { return header_.GetGeneration(); }
    // Bytes usable by records: min(fileSize, the file's real size).
    uint64_t GetCapacity() const { return capacity_; }
    const std::string& GetFilename() const { return file_->GetFileName(); }

    // When set, destruction does not fdatasync (data lives in the page cache
    // until the kernel writes it back).
    void SetNoFlush(bool noFlush) { noFlush_ = noFlush; }
    bool GetNoFlush() const { return noFlush_; }
    // fdatasync now. Throws std::runtime_error naming the file on failure.
    void Sync();

  private:
    // Steps of an append at a known offset.
    bool Fits(uint64_t offset, uint64_t size) const;
    void BeginGeneration();
    void EncodeHead(const Moreld::Plexa::DataChunk& chunk, uint64_t propertiesSize);
    bool AppendAt(const Moreld::Plexa::DataChunk& chunk, uint64_t offset);
    // Ends the generation, as far as this appender knows, at `offset` when a
    // record of it ends there; false otherwise.
    bool RewindTo(uint64_t offset);

    // Finds the tail and time points of the current generation once.
    void EnsureScanned() const;

    std::unique_ptr<File> file_;
    uint64_t capacity_;
    ChunkFileHeader header_;
    // keepContent was false and nothing has been appended yet.
    bool newGenerationPending_;
    bool noFlush_ = false;
    // Written to since opened or since the last Sync: a finished file that
    // was just synced is not synced again when it closes.
    bool unsynced_ = false;
    // Header and property block of the record being written, reused.
    std::string head_;
    tav::mr::logging::Logger logger_;

    // Lazily filled by EnsureScanned, then kept up to date by appends.
    mutable bool scanned_ = false;
    mutable uint64_t tail_ = ChunkFileHeader::kFirstRecordOffset;
    mutable std::set<Moreld::Time::TimePoint> timePoints_;
};

}  // namespace Moreld::File
