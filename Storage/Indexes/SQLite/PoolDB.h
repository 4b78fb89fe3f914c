#pragma once

#include <set>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/SQLite/Database.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/SQLite/ScopedStatement.h"

// The persistent record of the files pool: the SQLite file "pool.db" with one
// row per preallocated file of the volume (free in the pool or lent to a
// track), the files of a move or return in flight, and the pool and tracks
// directories. It is what lets the files pool finish, at the next start, a
// move that a crash interrupted.
//
// Tables: "files" (one row per file, unique on fileNumber) and "status" (one
// row, ROWID 1). A files row with a non-zero status marks a file whose move is
// not known to be finished: its directoryNumber says the direction (non-zero:
// lent to that track, 0: going back to the pool) and its status names the
// track involved. The files pool writes these rows before it renames the
// files, and clears them (CloseMoveTransaction) once the renames are done.
//
// Ownership: owns its connection and the statements cached on it.
// Multi-row writes run in one transaction each and are all-or-nothing: an SQL
// error on any row rolls the whole call back and reaches the caller as
// Moreld::SQLite::SQLiteError.
//
// Thread-safety: none. The files pool serialises all calls; WAL journaling
// lets other connections read the file meanwhile.
class PoolDB {
  public:
    // Closed; nothing is read from disk until Open.
    PoolDB();
    // Closes the connection (the file stays).
    ~PoolDB();
    PoolDB(const PoolDB&) = delete;
    PoolDB& operator=(const PoolDB&) = delete;

    // Opens (creating when missing) <directory>/pool.db, creates the missing
    // tables (a new "status" gets its single row: 0, 0, "", "") and sets the
    // connection's journal and sync modes. Returns false, logged at level 50,
    // when the file cannot be opened; every later call then throws
    // SQLiteError. SQL errors while creating the schema throw SQLiteError.
    bool Open(const std::string& directory);
    bool IsOpen() const { return db_.IsOpen(); }
    // <directory given to Open>/pool.db; empty before Open.
    const std::string& GetDBFile() const { return dbFile_; }
    // The database path Open(directory) would use.
    static std::string GetDBFile(const std::string& directory);
    Moreld::SQLite::Database& GetDb() { return db_; }

    // Records new files as free in the pool: directory 0, status 0, empty.
    // All files in one transaction; a file number already present fails the
    // whole call. (A braced list must name its type: both overloads take it.)
    void AddFiles(const std::vector<ChunkFile>& files);
    void AddFiles(const std::set<ChunkFile>& files);
    // Drops every row of "files": those of a link that did not complete.
    void RemoveAllFiles();
    // Every row, fifth value 0 (the row's status is not returned).
    std::vector<ChunkFile> GetAllFiles();
    long GetNumberFiles();

    // Records that `files` are being lent to `trackId`, before they move on
    // disk: directory and status become trackId. One transaction.
    void MoveToTrack(const std::vector<ChunkFile>& files, long trackId);
    // Records that `files` are going back to the pool, before they move on
    // disk: directory 0, status = each file's directory number (the track it
    // leaves), fromEmptyFile as the file says. One transaction.
    void ReturnToPool(const std::vector<ChunkFile>& files);
    // Marks every move and return finished: all statuses back to 0.
    void CloseMoveTransaction();
    // The rows of an unfinished move or return, each row's status in the
    // file's fifth value.
    std::vector<ChunkFile> GetMovingFiles();

    // The status row. A getter that finds no row logs it at level 40 and
    // returns 0 or the empty text; a setter then changes nothing.
    void SetMovingStatus(long status);
    void SetRestoringStatus(long status);
    void SetTracksDirectory(const std::string& directory);
    void SetPoolDirectory(const std::string& directory);
    long GetMovingStatus();
    long GetRestoringStatus();
    std::string GetTracksDirectory();
    std::string GetPoolDirectory();

    // `text` without its last character when that is a NUL, else unchanged:
    // texts read back from SQLite may carry a terminating NUL.
    static std::string CorrectSQLiteBackSlashZero(const std::string& text);

  private:
    void CreateMissingTables();
    void CreateFilesTable();
    void CreateStatusTable();
    void PrepareStatements();
    template <typename Files>
    void InsertFiles(const Files& files);
    void SetStatusInteger(const CachedSql& update, long value);
    void SetStatusText(const CachedSql& update, const std::string& value);
    long GetStatusInteger(const CachedSql& select, const char* caller);
    std::string GetStatusText(const CachedSql& select, const char* caller);

    Moreld::SQLite::Database db_;
    std::string dbFile_;

    const std::string filesTable_ = "files";
    const std::string statusTable_ = "status";

    CachedSql insertFile_{"PoolDB::AddFiles", ""};
    CachedSql selectAllFiles_{"PoolDB::GetAllFiles", ""};
    CachedSql moveToTrack_{"PoolDB::MoveToTrack", ""};
    CachedSql closeMove_{"PoolDB::CloseMoveTransaction", ""};
    CachedSql selectMovingFiles_{"PoolDB::GetMovingFiles", ""};
    CachedSql returnToPool_{"PoolDB::ReturnToPool", ""};
    CachedSql countFiles_{"PoolDB::GetNumberFiles", ""};
    CachedSql setMoving_{"PoolDB::SetMovingStatus", ""};
    CachedSql setRestoring_{"PoolDB::SetRestoringStatus", ""};
    CachedSql setTracksDirectory_{"PoolDB::SetTracksDirectory", ""};
    CachedSql setPoolDirectory_{"PoolDB::SetPoolDirectory", ""};
    CachedSql getMoving_{"PoolDB::GetMovingStatus", ""};
    CachedSql getRestoring_{"PoolDB::GetRestoringStatus", ""};
    CachedSql getTracksDirectory_{"PoolDB::GetTracksDirectory", ""};
    CachedSql getPoolDirectory_{"PoolDB::GetPoolDirectory", ""};

    tav::mr::logging::Logger logger_;
};
