#pragma once

#include <memory>
#include <set>
#include <string>

#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Services/ITrackReader.h"
#include "Storage/Indexes/Ram/Chunk.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "Storage/Indexes/Ram/ThreadedChunkCache.h"
#include "Storage/Server/FileSystem/OpenChunkFiles.h"
#include "Storage/Server/Monitoring.h"

// The host's reader for one track. The track's index decides whether a
// chunk exists and where; its bytes come from the track's cache while they
// are still there, else from its chunk file, checked against the index
// (time point, size, checksum, generation): a reader never returns bytes
// that are not the chunk the index names. A chunk in the cache that the
// index does not know yet is not visible.
//
// Reads through the track's open chunk files (OpenChunkFiles), shared with
// the track's other readers once ShareOpenFiles is called (else its own), so
// that a record read from a file already read takes one system call.
//
// Refers to the manager and cache (owned by their registries); shares the
// open files. Used by one host thread at a time; shares the cache, the index
// and the open files with other threads.
class ChunkCacheTrackReader : public MoreldStorageApi::ITrackReader {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    ChunkCacheTrackReader(long trackId, LoopRecordingFileManager& manager,
                          ThreadedChunkCache& cache);
    ~ChunkCacheTrackReader() override;

    void NextTimePoint(const Protocol::TimePoint& t, Protocol::TimePoint& out,
                       bool& found) override;
    void GetChunk(const Protocol::TimePoint& t, const Protocol::KeyList& keys, Protocol::Chunk& out,
                  bool& found) override;
    void GetTrackId(long& out) override { out = trackId_; }
    void PreviousTimePoint(const Protocol::TimePoint& t, Protocol::TimePoint& out,
                           bool& found) override;
    void GetPreviousChunk(const Protocol::TimePoint& t, const Protocol::KeyList& keys,
                          Protocol::Chunk& out, bool& found) override;
    void GetNextChunk(const Protocol::TimePoint& t, const Protocol::KeyList& keys,
                      Protocol::Chunk& out, bool& found) override;
    // Readers never block: `result` is false at once.
    void Wait(const Protocol::TimePoint& t, const int& timeout, bool& result) override;

    void SetTrackDirectory(const std::string& directory) { trackDirectory_ = directory; }
    void SetMonitoring(Monitoring* monitoring, long workerId);
    // Reads through `files`, the open files of the track's readers, from now
    // on. Call before the first read.
    void ShareOpenFiles(std::shared_ptr<OpenChunkFiles> files) { files_ = std::move(files); }
    // Fetches one indexed chunk's content, from the cache or its file. A
    // record is read into the payload buffer `out` already holds, so a caller
    // that reuses `out` saves an allocation per fetch. File errors (a record
    // that is not the chunk named) propagate; `out` is then unspecified.
    void GetChunk(const FileSystem::Chunk& chunk, const std::set<std::string>& keys,
                  Protocol::Chunk& out, bool& found);
    // Adds "tav-beginning-of-track", "tav-end-of-track",
    // "tav-accumulated-duration" and "tav-chunk-number" to `data`.
    void AddTAVProperties(const FileSystem::Chunk& chunk, Moreld::Plexa::DataChunk& data);

  private:
    enum class Direction { kAt, kNext, kPrevious };
    // Asks the index; keeps the handle as the last location.
    const IFileSystemManager::IChunkProtection* Find(Direction direction, const TimePoint& t);
    void Get(Direction direction, const char* name, const Protocol::TimePoint& t,
             const Protocol::KeyList& keys, Protocol::Chunk& out, bool& found);
    // Reads the chunk's record from its file, kept open for the next reads.
    void ReadRecord(const FileSystem::Chunk& chunk, const std::set<std::string>& keys,
                    Moreld::Plexa::DataChunk& data);
    // This reader's reader of `file`: the last one again when it reads the
    // same file (its buffers and layout guesses are kept), else a new one.
    // It keeps that one file open, even once the track's files let it go.
    Moreld::File::DataChunkFileReader& ReaderOf(
        const std::shared_ptr<Moreld::File::SharedChunkFile>& file);
    void Step(Direction direction, const char* name, const Protocol::TimePoint& t,
              Protocol::TimePoint& out, bool& found);

    const long trackId_;
    std::string trackDirectory_;
    IFileSystemManager::ChunkHandle lastLocation_;
    LoopRecordingFileManager& manager_;
    ThreadedChunkCache& cache_;
    tav::mr::logging::Logger logger_;
    Monitoring* monitoring_ = nullptr;
    long workerId_ = 0;
    std::shared_ptr<OpenChunkFiles> files_;
    std::unique_ptr<Moreld::File::DataChunkFileReader> fileReader_;
    const Moreld::File::SharedChunkFile* fileReaderFile_ = nullptr;  // what fileReader_ reads
};
