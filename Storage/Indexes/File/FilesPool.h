#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Tools/Mutex.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/SQLite/PoolDB.h"

// The pool of preallocated, equal-size chunk files: one directory of files
// known by number, each either free in the pool or lent to a track. Creating
// or growing a track lends it free files, which are renamed into the track's
// numbered directory under the tracks root; shrinking or deleting a track
// gives files back. Every lending and return is written to "pool.db" before
// any file moves on disk, and stays marked as in flight there until
// CloseMoveFilesTransaction, so that OpenDatabase can finish, at the next
// start, a move that a crash interrupted.
//
// Free files are chosen round robin: a cursor kept between calls makes
// successive moves take files in rotation through the pool.
//
// Ownership: owns its PoolDB and the set of all pool files. Files on disk
// belong to the volume; the pool only renames them.
//
// Thread-safety: one mutex guards the set, the cursor and the database, and
// is held for a whole move or return (so every other call that takes it
// waits for the move to end). StopMovingFiles, HasStoppedMovingFiles,
// GetNbMovedFiles and GetRemainingSpace do not take it: another thread can
// stop a running move between two files, and monitoring never waits for a
// move.
class FilesPool {
  public:
    FilesPool();
    ~FilesPool();
    FilesPool(const FilesPool&) = delete;
    FilesPool& operator=(const FilesPool&) = delete;

    // Opens "pool.db" in `directory` (creating it when missing), reloads the
    // pool directory, the tracks root and every file from it, and finishes on
    // disk the renames of a move or return that was interrupted. Returns the
    // files of that interrupted operation as the database lists them: the
    // fifth value is the track concerned, the directory number 0 for a return
    // to the pool or the track for a move into it; empty when nothing was in
    // flight. The database keeps them marked until CloseMoveFilesTransaction.
    // Call first. SQL errors propagate (SQLiteError).
    std::vector<ChunkFile> OpenDatabase(const std::string& directory);

    // Scans `poolDirectory` and records its files as free: regular files
    // named by a bare number, all of one size. The files are recorded first
    // and the pool directory last, both durably, so that a link stopped
    // half-way is seen (IsLinked false) and done again: rows of such a link
    // are dropped. Throws std::runtime_error, changing nothing, when the
    // database is not open, the pool is already linked, or the files differ
    // in size.
    void LinkToDirectory(const std::string& poolDirectory);
    // True once a LinkToDirectory has completed, in this run or before.
    bool IsLinked() const;
    // The tracks root recorded in the database; empty before
    // SetTrackDirectory.
    std::string GetTrackDirectory() const;

    // Sets the tracks root once. Throws std::runtime_error when the database
    // is not open, a root is already set or `tracksRoot` is not an existing
    // directory.
    void SetTrackDirectory(const std::string& tracksRoot);

    // Lends free files to `trackId` until their sizes add up to `size` bytes
    // (or a full turn of the pool is made), records the lending durably, then
    // renames them into the track's directory, which must exist, and syncs
    // both directories: once it returns, the move survives a power cut. Fills `moved` with
    // the lent files (directory number = trackId) and returns their total
    // size. Refusals throw std::runtime_error before anything changes: empty
    // pool, tracks root not set, pool directory missing, track id <= 0,
    // missing destination or one that is the pool, not enough free space. An
    // SQL error also changes nothing and leaves `moved` empty. A file that
    // fails to rename is logged and stays lent. Sleeps `waitMs` after each
    // file. Stops early, with HasStoppedMovingFiles()
    // true, once the stop count of StopMovingFiles is reached.
    unsigned long MoveFiles(long trackId, unsigned long size, std::vector<ChunkFile>& moved,
                            unsigned long waitMs);

    // Gives `files`, all lent to one track (they carry its directory
    // number), back to the pool: frees them, records the return durably,
    // then renames them into the pool directory and syncs both directories. Files the pool does not
    // know, or that are not lent to the track they name, are logged and skipped. A file that fails
    // to rename is logged and stays free. Sleeps `waitMs` after each file; stops early like
    // MoveFiles.
    void RestoreFiles(const std::vector<ChunkFile>& files, unsigned long waitMs);

    // Copies of every file of the pool, free or lent, in file-number order.
    std::vector<ChunkFile> GetFiles() const;
    // Copies of the files lent to `trackId`, in file-number order.
    std::vector<ChunkFile> GetMovedFiles(long trackId) const;
    uint64_t GetNbMovedFiles() const { return nbMovedFiles_.load(); }
    // Bytes of free files.
    uint64_t GetRemainingSpace() const { return remainingSpace_.load(); }

    // Makes a running or later move or return stop once `count` files have
    // been handled; 0 withdraws the request.
    void StopMovingFiles(unsigned long count) { stopCount_ = count; }
    // True when the last move or return stopped early.
    bool HasStoppedMovingFiles() const { return stopped_.load(); }

    // True when every file is on disk where the pool places it (pool
    // directory or its track's directory). Logs the first missing file.
    bool IsStateCoherent() const;

    // Marks the last move or return finished in the database.
    void CloseMoveFilesTransaction();

    // The database path OpenDatabase(directory) uses.
    std::string GetDBFile(const std::string& directory) const;

  private:
    using FileSet = std::set<ChunkFile>;

    // OpenDatabase steps; like every step below, with mutex_ held.
    void LoadFiles() REQUIRES(mutex_);
    void RecoverInterruptedFiles(const std::vector<ChunkFile>& files) REQUIRES(mutex_);
    void RecoverRestoredFile(const ChunkFile& file) REQUIRES(mutex_);
    void RecoverMovedFile(const ChunkFile& file) REQUIRES(mutex_);
    // Syncs the pool directory and the directories of `tracks`. Throws
    // std::runtime_error (logged) on failure.
    void SyncDirectories(const std::set<long>& tracks) const REQUIRES(mutex_);
    void SyncDirectory(const std::string& directory) const;

    // LinkToDirectory step: the numbered files of `poolDirectory`; sets
    // `fileSize`. Throws when two sizes differ.
    FileSet ScanPoolDirectory(const std::string& poolDirectory, uint64_t& fileSize) const;

    // MoveFiles steps. CheckMoveRequest returns the destination directory.
    std::string CheckMoveRequest(long trackId) const REQUIRES(mutex_);
    void CheckFreeSpace(unsigned long size) const REQUIRES(mutex_);
    // Picks free files round robin from `cursor`, which it advances, until
    // `size` bytes or a full turn, passing over files of the wrong size on
    // disk; returns their total size. Changes nothing.
    unsigned long SelectFiles(unsigned long size, std::vector<FileSet::iterator>& selected,
                              FileSet::iterator& cursor) const REQUIRES(mutex_);
    // False when the free `file` is on disk with another size than the pool's.
    bool HasPoolFileSize(const ChunkFile& file) const REQUIRES(mutex_);
    // Returns the number of files handled (renamed or not) before the end or
    // a stop.
    unsigned long RenameToTrack(const std::vector<ChunkFile>& moved, unsigned long waitMs)
        REQUIRES(mutex_);

    // RestoreFiles steps. FindLentFiles returns the files of `files` that are
    // lent to the track they name, with their entries; logs the others.
    std::vector<ChunkFile> FindLentFiles(const std::vector<ChunkFile>& files,
                                         std::vector<FileSet::iterator>& entries) REQUIRES(mutex_);
    unsigned long RenameToPool(const std::vector<ChunkFile>& files, unsigned long waitMs)
        REQUIRES(mutex_);

    // True (logged) when the stop count is reached after `handled` of
    // `total` files.
    bool ShouldStop(unsigned long handled, size_t total, const char* what);
    static void Wait(unsigned long waitMs);
    // Entries are keyed by file number only, which these setters never
    // change, so updating them in place keeps the set ordered.
    static ChunkFile& Entry(FileSet::iterator it) { return const_cast<ChunkFile&>(*it); }
    [[noreturn]] void Refuse(const std::string& message) const;
    // The same for a pool short of files (MoreldStorageApi::OutOfSpaceError).
    [[noreturn]] void RefuseForRoom(const std::string& message) const;

    mutable Moreld::Tools::Mutex mutex_;
    PoolDB db_ GUARDED_BY(mutex_);
    bool dbOpen_ GUARDED_BY(mutex_) = false;
    std::string poolDirectory_ GUARDED_BY(mutex_);
    std::string tracksRoot_ GUARDED_BY(mutex_);
    FileSet files_ GUARDED_BY(mutex_);
    // Where the next search for free files starts; end() only while empty.
    // The set never changes shape once filled, so it stays valid.
    FileSet::iterator cursor_ GUARDED_BY(mutex_);
    uint64_t fileSize_ GUARDED_BY(mutex_) = 0;

    std::atomic<uint64_t> nbMovedFiles_{0};
    std::atomic<uint64_t> remainingSpace_{0};
    std::atomic<unsigned long> stopCount_{0};
    std::atomic<bool> stopped_{false};

    tav::mr::logging::Logger logger_;
};
