#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/ReaderLock.h"
#include "Platform/Tools/SharedMutex.h"
#include "Platform/Tools/WriterLock.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Block.h"
#include "Storage/Indexes/Ram/ChunkPlacer.h"
#include "Storage/Indexes/Ram/IChunkProtectionFactory.h"
#include "Storage/Indexes/Ram/IFileSystemManager.h"
#include "Storage/Indexes/Ram/IProtectionManager.h"
#include "Storage/Indexes/Ram/ProtectionTable.h"
#include "Storage/Indexes/Ram/TrackActivity.h"
#include "Storage/Indexes/Ram/TrackCounters.h"
#include "Storage/Indexes/Ram/TrackFileBook.h"
#include "Storage/Indexes/SQLite/TrackDB.h"

// The RAM index of one track: for every chunk, the chunk file and offset that
// hold it, and the choice of where the next chunk goes. The track owns a fixed
// set of equal, preallocated files; each is either empty or the file of one
// block. New chunks fill the current block, then a block on the next empty
// file, then the file of the oldest unprotected block (loop recording).
//
// Persistence: the index is rebuilt from the track's TrackDB (OpenDatabase) and
// repaired against the files after an unclean stop (HandlePowerFailure). The
// database learns about chunks in batches, through SaveAndRemove, once their
// file is complete. A track may be cleared or shrunk while it is written:
// the database then only learns what the index still names, and the file
// being written never leaves the track.
//
// Thread safety: one appending thread (Append, SaveAndRemove), any number of
// readers (Lookup, Next, Previous, the getters), and service threads for files
// and protections. Locks, always taken in this order:
//   1. filesMutex_  (reader/writer): emptyFiles_, recyclableKeys_, protections_,
//                   observers_, the choice of the next file. Held by every
//                   operation that erases blocks.
//   2. indexMutex_  (reader/writer): blocks_ and the chunk counter. Also
//                   held by every operation that erases blocks, so a chunk
//                   that fits the current block is appended under this lock
//                   alone.
//   3. dbMutex_     (plain): serialises calls into trackDb_, which has no lock.
// Counters that the service reads without a lock are atomics; they are
// written under indexMutex_.
//
// The manager keeps the locking; the work is done by helpers without locks
// of their own, called under the manager's: ChunkPlacer (placing a chunk),
// TrackFileBook (empty files, recycling, files given back), ProtectionTable,
// BlockNavigation (searches) and TrackSpan (chunk counts between instants).
class LoopRecordingFileManager : public IProtectionManager, public IFileSystemManager {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    explicit LoopRecordingFileManager(long trackId);
    ~LoopRecordingFileManager() override;
    LoopRecordingFileManager(const LoopRecordingFileManager&) = delete;
    LoopRecordingFileManager& operator=(const LoopRecordingFileManager&) = delete;

    // --- Appending (one thread) ---
    // Places a chunk of `size` bytes starting at `tp`; returns it with its
    // location. Throws std::runtime_error when the chunk starts before the end
    // of the track, does not fit a file, or no file can take it; the index is
    // then unchanged.
    FileSystem::Chunk Append(const TimePoint& tp, const TimePoint& duration,
                             unsigned long size) override;
    FileSystem::Chunk AppendFirstChunk(const TimePoint& tp, const TimePoint& duration,
                                       unsigned long size);
    FileSystem::Chunk AppendInBlock(FileSystem::Block& block, const TimePoint& tp,
                                    const TimePoint& duration, unsigned long size);
    // Adds a block read back from the database (taken by value: a caller that
    // is done with its block moves it in). The caller holds what it needs.
    bool IndexBlock(FileSystem::Block block) REQUIRES(filesMutex_, indexMutex_);
    void AdaptBeginningOfTrack() REQUIRES_SHARED(filesMutex_);

    // --- Lookup and navigation (any thread) ---
    ChunkHandle Lookup(TimePoint tp) override;
    ChunkHandle Next(TimePoint tp, TimePoint& found) override;
    ChunkHandle Previous(TimePoint tp, TimePoint& found) override;
    ChunkHandle GetFirstChunkLocation(TimePoint& found) const override;
    ChunkHandle GetLastChunkLocation(TimePoint& found) const override;
    TimePoint GetAccumulatedDuration(const TimePoint& from, const TimePoint& to);
    unsigned long GetNumberOfChunks(const TimePoint& from, const TimePoint& to);
    // Whether `file` is one of the track's: an empty file recorded in the
    // database, or the file of a block.
    bool HasFile(const ChunkFile& file);
    TimePoint GetBeginningOfTrack() const { return counters_.beginningOfTrack.load(); }
    TimePoint GetEndOfTrack() const { return counters_.endOfTrack.load(); }
    TimePoint GetAccumulatedDuration() const { return counters_.accumulatedDuration.load(); }
    unsigned long GetSizeOnRam() const;
    void SetChunkProtectionFactory(IChunkProtectionFactory* factory);

    // --- Files and protections ---
    void InsertFiles(const std::vector<ChunkFile>& files) override;
    std::vector<ChunkFile> RemoveFiles(unsigned long size) override;
    // Removes the named files whatever they hold; false when some file was
    // not the track's.
    bool ForceRemoveFiles(const std::vector<ChunkFile>& files);
    // Holds the blocks that lie in [in, out] now, and keeps the range so
    // that every block opened in it later is held as it opens.
    void Protect(long id, const TimePoint& in, const TimePoint& out) override;
    // Protect for a stored protection reloaded at start-up: a range that
    // holds no block (its blocks were lost) is kept under its id all the
    // same, holding nothing. Returns the number of blocks it holds; throws
    // as Protect for a bad id or range.
    size_t RestoreProtection(long id, const TimePoint& in, const TimePoint& out);
    unsigned long Unprotect(long id) override;
    void RegisterProtectionObserver(IProtectionObserver* observer) override;
    void UnregisterProtectionObserver(IProtectionObserver* observer) override;
    void Clear() override;

    // --- Retention by age ---
    // Durably records the track's maximum age (0 ns: none); throws
    // std::runtime_error for a negative age, the policy then unchanged.
    void SetMaxAge(const TimePoint& maxAge);
    // 0 ns when the track keeps content of any age.
    TimePoint GetMaxAge() const { return maxAge_.load(); }
    // Gives back, as Clear does, the files of the unprotected blocks whose
    // whole content ends at or before `cutoff`, except the file being
    // written. Returns the number of files given back.
    size_t PurgeOlderThan(const TimePoint& cutoff);

    // --- Persistence ---
    void OpenDatabase(const std::string& directory);
    // Checks the newest blocks against the files under `root` and drops those
    // the files do not hold entirely.
    void HandlePowerFailure(const std::string& root);
    // Saves a written file's chunks, the whole content of the file, in the
    // database; chunks the index no longer names at their place (the track
    // was cleared or shrunk while the file was written) are left out.
    void SaveAndRemove(const std::vector<FileSystem::Chunk>& chunks);
    // Forgets the files' rows in the database (the index was updated by
    // RemoveFiles(unsigned long)).
    void RemoveFiles(const std::vector<ChunkFile>& files);
    void DestroyDatabase();
    // A writer writes the chunks Append places, in the files they name,
    // between these two calls. Meanwhile the file of the last chunk placed
    // stays in the track: RemoveFiles never gives it back.
    void BeginWriting();
    void EndWriting();
    void SetActiveMode(bool active);
    bool IsActive();
    bool CheckInvariant();
    // When true (the default), the database forgets a recycled file durably
    // (fsync) before the file's first new record is written, so that no crash
    // leaves the index naming chunks that were overwritten.
    void SetDurableRecycling(bool durable) { durableRecycling_ = durable; }

    // --- Counters and snapshots ---
    long GetTrackId() const { return trackId_; }
    // Sum of the sizes of the track's files.
    unsigned long GetMaxTrackSize() const { return counters_.maxTrackSize.load(); }
    // Payload bytes of the indexed chunks.
    unsigned long GetTrackSize() const { return counters_.trackSize.load(); }
    // Size of the track's files (the largest it was given): a chunk takes at
    // most this minus the 16-byte file header. 0 before any file.
    unsigned long GetFileSize() const { return counters_.fileSize.load(); }
    std::map<TimePoint, FileSystem::Block> GetBlocks() const;
    std::set<TimePoint> GetRecyclableKeys() const;
    std::deque<ChunkFile> GetEmptyFiles() const;
    std::map<unsigned long, std::set<TimePoint>> GetProtections() const;
    size_t GetProtectionCount() const;
    // Chunks, bytes and recycled files since the index was loaded.
    const TrackActivity& GetActivity() const { return activity_; }
    // Calls `visit` with the blocks under a shared lock of the index, for
    // readers that copy what they need and work on it outside the lock;
    // `visit` must not call back into the manager.
    void VisitBlocks(
        const std::function<void(const std::map<TimePoint, FileSystem::Block>&)>& visit) const;

  private:
    friend class TrackIndexRecovery;
    friend class TrackAgePurge;

    using SharedLock = Moreld::Tools::ReaderLock<>;
    using UniqueLock = Moreld::Tools::WriterLock<>;

    ChunkPlacer Placer() REQUIRES(indexMutex_);
    // Append checks the end of the track before it takes any lock: the
    // placer then reads only the atomic end of track, never the blocks it is
    // handed, hence the exemption of this one function.
    void CheckAfterEndOfTrack(const TimePoint& tp) NO_THREAD_SAFETY_ANALYSIS;
    // The book reads blocks_ with filesMutex_ alone held when it chooses a
    // file (only the appending thread adds blocks, and every operation that
    // erases one holds filesMutex_ too, so the map keeps its shape
    // meanwhile); it changes blocks only under indexMutex_ as well. The
    // analysis knows one guard per member, hence the exemption of the body.
    TrackFileBook Book() REQUIRES(filesMutex_) NO_THREAD_SAFETY_ANALYSIS;
    FileSystem::Chunk AppendInNewBlock(const TimePoint& tp, const TimePoint& duration,
                                       unsigned long size);
    // With filesMutex_ and indexMutex_ held exclusively, `file` taken out of
    // the empty files or out of its recycled block.
    FileSystem::Chunk AppendFirstInBlockLocked(const ChunkFile& file, const TimePoint& tp,
                                               const TimePoint& duration, unsigned long size,
                                               bool trackStarts) REQUIRES(filesMutex_, indexMutex_);
    void ForgetRecycledFile(const ChunkFile& file);
    FileSystem::Chunk AppendInBlockLocked(FileSystem::Block& block, const TimePoint& tp,
                                          const TimePoint& duration, unsigned long size)
        REQUIRES(indexMutex_);
    void CountFreed(const TrackFileBook::Freed& freed);
    void NoteFileSize(const ChunkFile& file);
    void NotePlaced(const ChunkFile& file) REQUIRES(indexMutex_);
    bool IsBeingWritten(const ChunkFile& file) const REQUIRES_SHARED(indexMutex_);
    // For the book, which calls it with indexMutex_ held.
    TrackFileBook::Keep KeepFileBeingWritten() const REQUIRES_SHARED(indexMutex_);
    std::vector<FileSystem::Chunk> StillIndexed(const std::vector<FileSystem::Chunk>& chunks) const;
    void CheckFactory() const;
    // Null for no chunk; else sets `found` (when given) to its time point.
    ChunkHandle MakeHandle(const std::optional<FileSystem::Chunk>& chunk, TimePoint* found) const;
    size_t ProtectRange(long id, const TimePoint& in, const TimePoint& out, bool mayHoldNothing);
    // Has the protections whose range the newest block lies in hold it.
    void HoldNewestBlockLocked() REQUIRES(filesMutex_, indexMutex_);

    const long trackId_;
    tav::mr::logging::Logger logger_;

    mutable Moreld::Tools::SharedMutex filesMutex_ ACQUIRED_BEFORE(indexMutex_, dbMutex_);
    std::deque<ChunkFile> emptyFiles_ GUARDED_BY(filesMutex_);
    std::set<TimePoint> recyclableKeys_ GUARDED_BY(filesMutex_);
    ProtectionTable protections_ GUARDED_BY(filesMutex_);
    std::set<IProtectionObserver*> protectionObservers_ GUARDED_BY(filesMutex_);
    bool loopRecording_ GUARDED_BY(filesMutex_) = true;

    mutable Moreld::Tools::SharedMutex indexMutex_ ACQUIRED_BEFORE(dbMutex_);
    std::map<TimePoint, FileSystem::Block> blocks_ GUARDED_BY(indexMutex_);
    bool writing_ GUARDED_BY(indexMutex_) = false;
    std::optional<ChunkFile> fileBeingWritten_ GUARDED_BY(indexMutex_);

    Moreld::Tools::Mutex dbMutex_;
    TrackDB trackDb_ GUARDED_BY(dbMutex_);

    // Written by the appending thread (or under the locks above), read
    // anywhere; its chunk counter is guarded by indexMutex_ (a field of a
    // struct, which the analysis cannot name: the placer, built only under
    // indexMutex_, is what writes it).
    TrackCounters counters_;
    std::atomic<TimePoint> maxAge_{TimePoint()};  // written under dbMutex_
    TrackActivity activity_;

    std::atomic<IChunkProtectionFactory*> chunkProtectionFactory_{nullptr};
    std::atomic<bool> durableRecycling_{true};
};
