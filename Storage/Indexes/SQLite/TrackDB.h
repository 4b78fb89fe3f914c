#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/SQLite/Database.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Chunk.h"

// The persistent index of one track: the SQLite file "<trackId>.db" holding
// every chunk that has reached disk (file and place in it), the track's
// empty files and its "active" flag. The track's manager rebuilds its RAM
// index from it at start-up and saves each flushed batch of chunks into it.
//
// Tables: "chunks" (one row per chunk, no key; a file's rows are found by
// file number and directory number), "emptyFiles" (one row per empty file),
// "status" (one row, ROWID 1), "retention" (at most one row: the track's
// maximum age in nanoseconds; none when the track keeps content of any age;
// created when missing, so older databases open). The "chunkIndex" column of "chunks" holds the
// chunk's size in bytes, not its index: existing databases depend on it.
//
// Ownership: owns its connection and the statements cached on it.
// Multi-row writes (batches, file lists, clears) run in one transaction each
// and are all-or-nothing: an SQL error rolls the whole call back and passes
// to the caller as Moreld::SQLite::SQLiteError.
//
// Thread-safety: none. The owner serialises all calls; WAL journaling lets
// other connections read the file while this one writes.
class TrackDB {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // Closed; nothing is read from disk until Open.
    TrackDB();
    // Closes the connection (the file stays).
    ~TrackDB();

    // Opens (creating when missing) <directory>/<trackId>.db, creates the
    // missing tables and indexes, and sets the connection's journal and
    // sync modes. Returns false, logged at level 50, when the file cannot be
    // opened. SQL errors while creating the schema throw SQLiteError and
    // leave the object not open.
    bool Open(const std::string& directory, long trackId);
    bool IsOpen() const { return open_; }
    // The path of the database file, set by Open.
    const std::string& GetDBFile() const { return dbFile_; }
    Moreld::SQLite::Database& GetDb() { return db_; }

    // Stores one chunk row. Its accumulated duration, chunk index and
    // sequence number are not stored.
    void Append(const FileSystem::Chunk& chunk);
    // The chunk stored at exactly `tp`, with chunk index 0 and a file not
    // flagged as empty; a default Chunk when there is none.
    FileSystem::Chunk Get(const TimePoint& tp);

    // Lists the file as empty: its chunk rows and any empty-file row it had
    // go first, so that it is never listed twice.
    void AddEmptyFile(const ChunkFile& file);
    // All files, in one transaction.
    void AddEmptyFiles(const std::vector<ChunkFile>& files);
    // Deletes the file's empty-file row.
    void RemoveEmptyFile(const ChunkFile& file);
    // Deletes every chunk row of the file.
    void Remove(const ChunkFile& file);
    // In one transaction: the file's chunk rows go, it becomes an empty file.
    void RemoveAndAddAsEmptyFile(const ChunkFile& file);
    // In one transaction, per file: every row of the file, empty-file row and
    // chunk rows, whatever its empty-file flag says.
    void RemoveFiles(const std::vector<ChunkFile>& files);
    // In one transaction, per file: its chunk rows go, it becomes an empty
    // file.
    void Clear(const std::vector<ChunkFile>& files);
    // Saves one flushed batch in one transaction: the batch is the whole
    // content of its first chunk's file, whose earlier rows (empty-file row,
    // chunk rows) go first. The file's empty-file flag only names what is
    // dropped in the log line. Does nothing for an empty batch.
    void SaveAndRemove(const std::vector<FileSystem::Chunk>& chunks);

    // Every chunk row, in the order SQLite returns them; chunk index 0,
    // files not flagged as empty.
    std::vector<FileSystem::Chunk> GetAllChunks();
    // Hands every chunk row to `row` as GetAllChunks lists them, one at a
    // time: nothing is held for the whole table. `row` must not call back
    // into this object.
    void ForEachChunk(const std::function<void(const FileSystem::Chunk&)>& row);
    // Every empty file, flagged as empty.
    std::vector<ChunkFile> GetAllEmptyFiles();
    // The distinct files of the chunks whose time point lies in [from, to],
    // keyed by file name, flagged as empty.
    std::map<std::string, ChunkFile> GetFilesFromTimePoint(const TimePoint& from,
                                                           const TimePoint& to);

    void SetActiveMode(bool active);
    // False when the status row is missing.
    bool IsActive();

    // Durably records the track's maximum age; 0 ns removes it.
    void SetMaxAge(const TimePoint& maxAge);
    // The recorded maximum age; 0 ns when there is none.
    TimePoint GetMaxAge();

    // Closes the connection and removes the database file and its WAL side
    // files from disk. Throws boost::filesystem::filesystem_error when a file
    // cannot be removed.
    void Destroy();

  private:
    // Deletes every row of the file: its empty-file row and its chunk rows.
    void Forget(const ChunkFile& file);
    void CreateMissingTables();
    void CreateChunksTable();
    void CreateEmptyFilesTable();
    void CreateStatusTable();
    void CreateRetentionTable();
    void PrepareStatements();

    Moreld::SQLite::Database db_;
    std::string dbFile_;
    bool open_ = false;

    const std::string chunksTable_ = "chunks";
    const std::string emptyFilesTable_ = "emptyFiles";
    const std::string statusTable_ = "status";
    const std::string retentionTable_ = "retention";

    std::string insertChunkSql_;
    std::string selectChunkAtSql_;
    std::string selectAllChunksSql_;
    std::string deleteFileChunksSql_;
    std::string insertEmptyFileSql_;
    std::string deleteEmptyFileSql_;
    std::string selectAllEmptyFilesSql_;
    std::string selectActiveSql_;
    std::string updateActiveSql_;
    std::string selectChunksBetweenSql_;
    std::string selectMaxAgeSql_;
    std::string deleteMaxAgeSql_;
    std::string insertMaxAgeSql_;

    tav::mr::logging::Logger logger_;
};
