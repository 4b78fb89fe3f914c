#include "Storage/Indexes/SQLite/TrackDB.h"

#include <boost/filesystem.hpp>

#include "Platform/File/Env.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Statement.h"
#include "Platform/SQLite/Transaction.h"
#include "Storage/Indexes/SQLite/DurableCommits.h"

using Moreld::SQLite::Statement;
using Moreld::SQLite::Transaction;

namespace {

const char kPragmas[] =
    "PRAGMA JOURNAL_MODE=WAL;PRAGMA SYNCHRONOUS=NORMAL;PRAGMA LOCKING_MODE=NORMAL;"
    "PRAGMA page_size=4096;PRAGMA WAL_AUTOCHECKPOINT=1000;";

// One use of a cached statement. Resets it however the use ends, so that an
// exception never leaves a statement holding its read snapshot or bindings.
class CachedRun {
  public:
    CachedRun(Moreld::SQLite::Database& db, const char* key, const std::string& sql)
        : statement_(db.GetCachedStatement(key, sql.c_str())) {}
    ~CachedRun() { statement_->Reset(); }
    CachedRun(const CachedRun&) = delete;
    CachedRun& operator=(const CachedRun&) = delete;

    Statement* operator->() const { return statement_; }
    Statement& operator*() const { return *statement_; }

  private:
    Statement* statement_;
};

// The four ChunkFile values, as the leading columns of both tables store them.
ChunkFile FileFromColumns(const Statement& row, bool fromEmptyFile) {
    return ChunkFile(row.GetIntegerValue(0), row.GetIntegerValue(1), row.GetIntegerValue(2),
                     row.GetIntegerValue(3), 0, fromEmptyFile);
}

// A "chunks" row; the "chunkIndex" column holds the chunk's size.
FileSystem::Chunk ChunkFromRow(const Statement& row) {
    ChunkLocation location(FileFromColumns(row, false),
                           static_cast<unsigned long>(row.GetIntegerValue(4)),
                           static_cast<unsigned long>(row.GetIntegerValue(5)), 0);
    return FileSystem::Chunk(Moreld::Time::TimePoint::FromNanoseconds(row.GetIntegerValue(6)),
                             Moreld::Time::TimePoint::FromNanoseconds(row.GetIntegerValue(7)),
                             location);
}

void BindFileColumns(Statement& statement, const ChunkFile& file) {
    statement.SetIntegerParameter(0, file.GetFileNumber());
    statement.SetIntegerParameter(1, file.GetFileNameSize());
    statement.SetIntegerParameter(2, file.Size());
    statement.SetIntegerParameter(3, file.GetDirectoryNumber());
}

}  // namespace

TrackDB::TrackDB() : logger_(tav::mr::logging::LoggingManager::GetLogger("TrackDB")) {}

TrackDB::~TrackDB() {
    db_.Close();
}

bool TrackDB::Open(const std::string& directory, long trackId) {
    open_ = false;
    dbFile_ = (boost::filesystem::path(directory) / (std::to_string(trackId) + ".db")).string();
    if (!db_.Open(dbFile_)) {
        MR_LOG(logger_, 50, "Could not open database file " << dbFile_);
        return false;
    }
    CreateMissingTables();
    db_.Execute("CREATE INDEX IF NOT EXISTS fileNumberIndexEmptyFiles ON " + emptyFilesTable_ +
                    "(fileNumber)",
                false);
    db_.Execute(kPragmas, false);
    db_.Execute(kDurableCommits, false);
    PrepareStatements();
    open_ = true;
    return true;
}

void TrackDB::CreateMissingTables() {
    const std::pair<const std::string*, void (TrackDB::*)()> tables[] = {
        {&chunksTable_, &TrackDB::CreateChunksTable},
        {&emptyFilesTable_, &TrackDB::CreateEmptyFilesTable},
        {&statusTable_, &TrackDB::CreateStatusTable},
        {&retentionTable_, &TrackDB::CreateRetentionTable},
    };
    for (const auto& [name, create] : tables) {
        if (!db_.TableExist(*name)) {
            MR_LOG(logger_, 20, "Creating table \"" << *name << "\" on database " << dbFile_);
            (this->*create)();
        }
    }
}

void TrackDB::CreateChunksTable() {
    db_.Execute("CREATE TABLE " + chunksTable_ +
                    "(fileNumber INTEGER, fileNameSize INTEGER, fileSize INTEGER, "
                    "directoryNumber INTEGER, offset INTEGER, chunkIndex INTEGER, "
                    "timepoint INTEGER, duration INTEGER)",
                false);
    db_.Execute(
        "CREATE INDEX IF NOT EXISTS fileNumberIndexChunks ON " + chunksTable_ + "(fileNumber)",
        false);
}

void TrackDB::CreateEmptyFilesTable() {
    db_.Execute("CREATE TABLE " + emptyFilesTable_ +
                    "(fileNumber INTEGER, fileNameSize INTEGER, fileSize INTEGER, "
                    "directoryNumber INTEGER)",
                false);
}

void TrackDB::CreateStatusTable() {
    db_.Execute("CREATE TABLE " + statusTable_ + "(active INTEGER )", false);
    // A new track starts inactive.
    Statement insert(db_, "INSERT INTO " + statusTable_ + " VALUES (?)");
    insert.SetIntegerParameter(0, 0);
    insert.Execute();
}

void TrackDB::CreateRetentionTable() {
    db_.Execute("CREATE TABLE " + retentionTable_ + "(maxAge INTEGER)", false);
}

void TrackDB::PrepareStatements() {
    const std::string insertInto = "INSERT INTO ";
    const std::string values = " VALUES (";
    const std::string param = "?, ";
    const std::string lastParam = "?)";
    const std::string selectAllFrom = "SELECT * FROM ";
    const std::string where = " WHERE ";
    const std::string deleteFrom = "DELETE FROM ";
    const std::string update = "UPDATE ";
    const std::string selectActiveFrom = "SELECT active FROM ";
    const std::string byFile = "fileNumber == (?) AND directoryNumber == (?)";
    const std::string statusRow = " WHERE ROWID == 1";

    insertChunkSql_ = insertInto + chunksTable_ + values + param + param + param + param + param +
                      param + param + lastParam;
    selectChunkAtSql_ = selectAllFrom + chunksTable_ + where + " timepoint IS (?)";
    selectAllChunksSql_ = selectAllFrom + chunksTable_;
    deleteFileChunksSql_ = deleteFrom + chunksTable_ + where + byFile;
    insertEmptyFileSql_ =
        insertInto + emptyFilesTable_ + values + param + param + param + lastParam;
    deleteEmptyFileSql_ = deleteFrom + emptyFilesTable_ + where + byFile;
    selectAllEmptyFilesSql_ = selectAllFrom + emptyFilesTable_;
    selectActiveSql_ = selectActiveFrom + statusTable_ + statusRow;
    updateActiveSql_ = update + statusTable_ + " SET active = (?)" + statusRow;
    selectChunksBetweenSql_ =
        selectAllFrom + chunksTable_ + where + "timepoint >= (?) AND timepoint <= (?)";
    selectMaxAgeSql_ = "SELECT maxAge FROM " + retentionTable_;
    deleteMaxAgeSql_ = deleteFrom + retentionTable_;
    insertMaxAgeSql_ = insertInto + retentionTable_ + values + lastParam;
}

void TrackDB::Append(const FileSystem::Chunk& chunk) {
    CachedRun insert(db_, "TrackDB::Append", insertChunkSql_);
    BindFileColumns(*insert, chunk.location.file);
    insert->SetIntegerParameter(4, static_cast<long>(chunk.location.offset));
    insert->SetIntegerParameter(5, static_cast<long>(chunk.location.size));
    insert->SetIntegerParameter(6, chunk.timepoint.ToNanoseconds());
    insert->SetIntegerParameter(7, chunk.duration.ToNanoseconds());
    insert->Execute();
}

FileSystem::Chunk TrackDB::Get(const TimePoint& tp) {
    CachedRun select(db_, "TrackDB::Get", selectChunkAtSql_);
    select->SetIntegerParameter(0, tp.ToNanoseconds());
    select->Execute();
    if (select->IsDone()) {
        return FileSystem::Chunk();
    }
    return ChunkFromRow(*select);
}

void TrackDB::AddEmptyFile(const ChunkFile& file) {
    // A file is listed once, as empty or by its chunks: whatever rows it had
    // go first.
    Forget(file);
    CachedRun insert(db_, "TrackDB::AddEmptyFile", insertEmptyFileSql_);
    BindFileColumns(*insert, file);
    insert->Execute();
}

void TrackDB::Forget(const ChunkFile& file) {
    RemoveEmptyFile(file);
    Remove(file);
}

void TrackDB::AddEmptyFiles(const std::vector<ChunkFile>& files) {
    Transaction transaction(db_, false);
    for (const ChunkFile& file : files) {
        AddEmptyFile(file);
    }
    transaction.Commit(false);
}

void TrackDB::RemoveEmptyFile(const ChunkFile& file) {
    CachedRun remove(db_, "TrackDB::RemoveEmptyFile", deleteEmptyFileSql_);
    remove->SetIntegerParameter(0, file.GetFileNumber());
    remove->SetIntegerParameter(1, file.GetDirectoryNumber());
    remove->Execute();
}

void TrackDB::Remove(const ChunkFile& file) {
    CachedRun remove(db_, "TrackDB::Remove", deleteFileChunksSql_);
    remove->SetIntegerParameter(0, file.GetFileNumber());
    remove->SetIntegerParameter(1, file.GetDirectoryNumber());
    remove->Execute();
}

void TrackDB::RemoveAndAddAsEmptyFile(const ChunkFile& file) {
    Transaction transaction(db_, false);
    AddEmptyFile(file);
    transaction.Commit(false);
}

void TrackDB::RemoveFiles(const std::vector<ChunkFile>& files) {
    // Whatever the flag says, a file that leaves the track leaves no row: a
    // block whose chunks were never saved is still listed as an empty file.
    Transaction transaction(db_, false);
    for (const ChunkFile& file : files) {
        Forget(file);
    }
    transaction.Commit(false);
}

void TrackDB::Clear(const std::vector<ChunkFile>& files) {
    Transaction transaction(db_, false);
    for (const ChunkFile& file : files) {
        AddEmptyFile(file);
    }
    transaction.Commit(false);
}

void TrackDB::SaveAndRemove(const std::vector<FileSystem::Chunk>& chunks) {
    if (chunks.empty()) {
        return;
    }
    Transaction transaction(db_, false);
    // The batch is the whole content of the first chunk's file: every row
    // the file had goes, its empty-file row and the chunk rows of earlier
    // batches (a continued file) or of an older block (a recycled one).
    const ChunkFile& file = chunks.front().location.file;
    Forget(file);
    if (file.IsFromEmptyFile()) {
        MR_LOG(
            logger_, 10,
            "Saving " << chunks.size() << " chunks and removing empty file " << file.GetFileName());
    } else {
        MR_LOG(logger_, 10,
               "Saving " << chunks.size() << " chunks and removing loop recording file "
                         << file.GetFileName());
    }
    for (const FileSystem::Chunk& chunk : chunks) {
        Append(chunk);
    }
    transaction.Commit(false);
}

std::vector<FileSystem::Chunk> TrackDB::GetAllChunks() {
    std::vector<FileSystem::Chunk> chunks;
    ForEachChunk([&](const FileSystem::Chunk& chunk) { chunks.push_back(chunk); });
    return chunks;
}

void TrackDB::ForEachChunk(const std::function<void(const FileSystem::Chunk&)>& row) {
    CachedRun select(db_, "TrackDB::GetAllChunks", selectAllChunksSql_);
    for (select->Execute(); !select->IsDone(); select->Next()) {
        row(ChunkFromRow(*select));
    }
}

std::vector<ChunkFile> TrackDB::GetAllEmptyFiles() {
    std::vector<ChunkFile> files;
    CachedRun select(db_, "TrackDB::GetAllEmptyFiles", selectAllEmptyFilesSql_);
    for (select->Execute(); !select->IsDone(); select->Next()) {
        files.push_back(FileFromColumns(*select, true));
    }
    return files;
}

std::map<std::string, ChunkFile> TrackDB::GetFilesFromTimePoint(const TimePoint& from,
                                                                const TimePoint& to) {
    std::map<std::string, ChunkFile> files;
    CachedRun select(db_, "TrackDB::GetFilesFromTimePoint", selectChunksBetweenSql_);
    select->SetIntegerParameter(0, from.ToNanoseconds());
    select->SetIntegerParameter(1, to.ToNanoseconds());
    for (select->Execute(); !select->IsDone(); select->Next()) {
        ChunkFile file = FileFromColumns(*select, true);
        files.emplace(file.GetFileName(), file);
    }
    return files;
}

void TrackDB::SetActiveMode(bool active) {
    CachedRun update(db_, "TrackDB::SetActiveMode", updateActiveSql_);
    update->SetIntegerParameter(0, active ? 1 : 0);
    update->Execute();
}

bool TrackDB::IsActive() {
    CachedRun select(db_, "TrackDB::IsActive", selectActiveSql_);
    select->Execute();
    return !select->IsDone() && select->GetIntegerValue(0) != 0;
}

void TrackDB::SetMaxAge(const TimePoint& maxAge) {
    // One row at most: the old one goes in the same transaction.
    Transaction transaction(db_, false);
    {
        CachedRun remove(db_, "TrackDB::SetMaxAge:delete", deleteMaxAgeSql_);
        remove->Execute();
    }
    if (maxAge.ToNanoseconds() != 0) {
        CachedRun insert(db_, "TrackDB::SetMaxAge:insert", insertMaxAgeSql_);
        insert->SetIntegerParameter(0, maxAge.ToNanoseconds());
        insert->Execute();
    }
    transaction.Commit(false);
}

TrackDB::TimePoint TrackDB::GetMaxAge() {
    CachedRun select(db_, "TrackDB::GetMaxAge", selectMaxAgeSql_);
    select->Execute();
    return TimePoint::FromNanoseconds(select->IsDone() ? 0 : select->GetIntegerValue(0));
}

void TrackDB::Destroy() {
    // Close first, then remove the side files too: a WAL left behind would
    // be replayed into the next database created under the same name (a
    // new track with the same id) and bring the deleted track's rows back.
    db_.Close();
    open_ = false;
    Moreld::File::Env& env = Moreld::File::Env::Get();
    for (const char* suffix : {"-wal", "-shm", ""}) {
        const std::error_code error = env.RemoveFile(dbFile_ + suffix);
        if (error && error != std::errc::no_such_file_or_directory) {
            throw std::runtime_error("Cannot remove " + dbFile_ + suffix + ": " + error.message());
        }
    }
    // Durably gone before the track's directory goes: a database left
    // without its directory would be taken up by the next track of that id.
    if (const std::error_code error = env.SyncDirectory(Moreld::File::ParentDirectory(dbFile_))) {
        throw std::runtime_error("Cannot sync the directory of " + dbFile_ + ": " +
                                 error.message());
    }
    MR_LOG(logger_, 30, "Database file " << dbFile_ << " erased");
}
