#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Plexa/DataChunk.h"
#include "Platform/Services/ITrackWriter.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/RateLimiter.h"
#include "Storage/Indexes/Ram/Chunk.h"
#include "Storage/Indexes/Ram/IChunkFlusher.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "Storage/Indexes/Ram/ThreadedChunkCache.h"
#include "Storage/Server/Monitoring.h"
#include "Storage/Server/TrackLock.h"

// The host's writer for one track. The host's thread calls Append with each
// chunk in time order; the chunk waits in the track's cache, whose flusher
// thread hands it back (Flush): the index places it, the writer appends its
// record to that chunk file and lets the cache evict it; each time the index
// moves to another file, the writer makes the finished file durable and then
// saves its chunks in the track database.
//
// The writer bounds its track's cache to 50000000 bytes, or to the budget
// that the caches of all tracks share when the host set a smaller one: the
// budget alone then bounds the memory of the cached chunks.
//
// Ownership: the writer refers to its track's manager and cache (owned by
// their registries, which outlive it) and owns the open chunk file and the
// track's writer lock: at most one writer per track in the process.
//
// Threads: Append and GetTrackId on the host's thread; Flush, WriteChunk and
// CacheIsWaiting on the cache's flusher thread (CacheIsWaiting also from
// Append, inside the cache). Destruction drains the cache first.
class LoopRecordingFileTrackWriter : public MoreldStorageApi::ITrackWriter, public IChunkFlusher {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // Takes the track's writer lock (throws "Track <id> is already being
    // written to"), configures and starts the cache's flusher thread and
    // marks the track active.
    LoopRecordingFileTrackWriter(long trackId, LoopRecordingFileManager& manager,
                                 ThreadedChunkCache& cache);
    // Writes every chunk still in the cache, saves the last file's chunks and
    // marks the track inactive (unless DontSaveOnFile/DoNotFlushMoreFiles).
    ~LoopRecordingFileTrackWriter() override;

    // Checks and queues one chunk; blocks only while the cache is full. The
    // message's payload is moved out, not copied: the caller must not reuse
    // it. Throws std::runtime_error, keeping nothing of the chunk, for a
    // non-positive duration, an end after the last time point, a chunk
    // before the end of the track, a track without files, a chunk larger
    // than a file of the track or than the cache, and when chunks accepted
    // earlier could not be stored (reported once).
    void Append(const Protocol::Chunk& chunk) override;
    // Drains the cache (the flusher thread is restarted after).
    void WaitUntilStored(long& stored) override;
    void GetTrackId(long& trackId) override { trackId = trackId_; }

    // Flusher side: places and writes one chunk; returns its index record,
    // or an empty record when it failed (the chunk is then marked handled).
    FileSystem::Chunk Flush(std::shared_ptr<Moreld::Plexa::DataChunk> chunk) override;
    void CacheIsWaiting(bool waiting) override { cacheIsWaiting_ = waiting; }

    void SetTrackDirectory(const std::string& directory);
    void SetCacheSize(unsigned long bytes);
    // Chunks are still written, but files are no longer synced and the track
    // stays marked active, so the next start checks its last file.
    void DontSaveOnFile() { saveOnFile_ = false; }
    void DoNotFlushMoreFiles();
    LoopRecordingFileManager& GetManager() { return manager_; }

    // Registration in Monitoring, done by the factory.
    void SetMonitoring(Monitoring* monitoring, long workerId);

    void WriteChunk(const Moreld::Plexa::DataChunk& data, const FileSystem::Chunk& record);
    void CheckAndThrow(const TimePoint& t, const TimePoint& duration);
    // Whether the track can store a chunk of `size` bytes on file at all.
    void CheckRoom(const TimePoint& t, unsigned long size);

  private:
    // Steps of WriteChunk.
    void FinishFile(const FileSystem::Chunk& record);
    void OpenFirstFile(const FileSystem::Chunk& record);
    void SaveCurrentFile();
    void HandleCurrentFileChunks();
    void DropRecycledCurrentFile();
    // Writes a chunk the index placed; on failure, counts it lost and stops
    // the writer (see diskFailed_).
    bool WritePlaced(const Moreld::Plexa::DataChunk& data, const FileSystem::Chunk& record);
    // At close after a failed write: saves what was written and makes the
    // index name only what the files hold.
    void RepairAfterDiskFailure();
    std::string FileNameOf(const FileSystem::Chunk& record) const;
    // An accepted chunk that could not be stored (flusher thread), and the
    // report of such losses (host thread).
    void CountLoss(const TimePoint& t, const std::string& reason);
    void ThrowLosses();
    // Whether a slow-path line may be written now (one a second for the
    // track, whatever the line); `suffix` then tells how many were not.
    bool SlowLine(std::string& suffix);

    const long trackId_;
    // Host thread only.
    TimePoint endOfTrack_;
    TimePoint accumulatedDuration_;
    unsigned long appendedChunks_ = 0;
    // Flusher thread only (and the destructor, after the thread stopped).
    unsigned long flushedChunks_ = 0;
    unsigned long flushedBytes_ = 0;
    std::unique_ptr<Moreld::File::DataChunkFileAppender> appender_;
    std::vector<FileSystem::Chunk> currentFileChunks_;

    std::string trackDirectory_;  // set before the first chunk is flushed
    std::atomic<bool> saveOnFile_{true};
    LoopRecordingFileManager& manager_;
    ThreadedChunkCache& cache_;
    std::atomic<bool> cacheIsWaiting_{false};
    tav::mr::logging::Logger logger_;
    std::unique_ptr<TrackLock> trackLock_;
    std::atomic<unsigned long> storedChunks_{0};
    // Set by the flusher when a placed chunk could not be written: from then
    // on nothing is stored, Append refuses, and the close repairs the index.
    std::atomic<bool> diskFailed_{false};
    Moreld::Tools::Mutex lossMutex_;
    unsigned long lostChunks_ GUARDED_BY(lossMutex_) = 0;  // since the last report
    std::string firstLoss_ GUARDED_BY(lossMutex_);
    Monitoring* monitoring_ = nullptr;
    long workerId_ = 0;
    // Shared by the host thread and the flusher thread.
    Moreld::Tools::RateLimiter slowLines_;
};
