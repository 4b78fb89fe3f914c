#include "Storage/Indexes/SQLite/PoolDB.h"

#include <boost/filesystem.hpp>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Statement.h"
#include "Platform/SQLite/Transaction.h"
#include "Storage/Indexes/SQLite/DurableCommits.h"

using Moreld::SQLite::Statement;
using Moreld::SQLite::Transaction;

namespace {

const char kPragmas[] =
    "PRAGMA JOURNAL_MODE=WAL;PRAGMA SYNCHRONOUS=NORMAL;PRAGMA JOURNAL_MODE=WAL;"
    "PRAGMA LOCKING_MODE=NORMAL;PRAGMA page_size=4096;PRAGMA WAL_AUTOCHECKPOINT=4000;";

// Columns: fileNumber, fileNameSize, fileSize, directoryNumber, status,
// fromEmptyFile.
ChunkFile FileFromRow(const Statement& row, long fifthValue) {
    return ChunkFile(row.GetIntegerValue(0), row.GetIntegerValue(1), row.GetIntegerValue(2),
                     row.GetIntegerValue(3), fifthValue, row.GetIntegerValue(5) != 0);
}

}  // namespace

PoolDB::PoolDB() : logger_(tav::mr::logging::LoggingManager::GetLogger("PoolDB")) {}

PoolDB::~PoolDB() {
    db_.Close();
}

std::string PoolDB::GetDBFile(const std::string& directory) {
    return (boost::filesystem::path(directory) / "pool.db").string();
}

bool PoolDB::Open(const std::string& directory) {
    dbFile_ = GetDBFile(directory);
    if (!db_.Open(dbFile_)) {
        MR_LOG(logger_, 50, "Could not open database file " << dbFile_);
        return false;
    }
    CreateMissingTables();
    db_.Execute(kPragmas, false);
    db_.Execute(kDurableCommits, false);
    PrepareStatements();
    return true;
}

void PoolDB::CreateMissingTables() {
    // One transaction: a crash between creating "status" and inserting its
    // row would leave a database whose status row is missing for good.
    Transaction transaction(db_, false);
    if (!db_.TableExist(filesTable_)) {
        MR_LOG(logger_, 20, "Creating table \"" << filesTable_ << "\" on database " << dbFile_);
        CreateFilesTable();
    }
    if (!db_.TableExist(statusTable_)) {
        MR_LOG(logger_, 20, "Creating table \"" << statusTable_ << "\" on database " << dbFile_);
        CreateStatusTable();
    }
    transaction.Commit(false);
}

void PoolDB::CreateFilesTable() {
    db_.Execute("CREATE TABLE " + filesTable_ +
                    "(fileNumber INTEGER, fileNameSize INTEGER, fileSize INTEGER, "
                    "directoryNumber INTEGER, status INTEGER, fromEmptyFile INTEGER)",
                false);
    db_.Execute(
        "CREATE UNIQUE INDEX IF NOT EXISTS fileNumberIndex ON " + filesTable_ + "(fileNumber)",
        false);
}

void PoolDB::CreateStatusTable() {
    db_.Execute("CREATE TABLE " + statusTable_ +
                    "(moving INTEGER, restoring INTEGER,poolDirectory TEXT,tracksDirectory TEXT)",
                false);
    Statement insert(db_, "INSERT INTO " + statusTable_ + " VALUES (?, ?, ?, ?)");
    insert.SetIntegerParameter(0, 0);
    insert.SetIntegerParameter(1, 0);
    insert.SetTextParameter(2, "");
    insert.SetTextParameter(3, "");
    insert.Execute();
}

void PoolDB::PrepareStatements() {
    const std::string files = filesTable_;
    const std::string statusRow = " WHERE ROWID == 1";

    insertFile_.text = "INSERT INTO " + files + " VALUES (?, ?, ?, ?, ?, ?)";
    selectAllFiles_.text = "SELECT * FROM " + files;
    moveToTrack_.text =
        "UPDATE " + files + " SET directoryNumber = (?), status = (?) WHERE fileNumber == (?)";
    closeMove_.text = "UPDATE " + files + " SET status = 0";
    selectMovingFiles_.text = "SELECT * FROM " + files + " WHERE status != 0";
    returnToPool_.text = "UPDATE " + files +
                         " SET directoryNumber = 0, status = (?), fromEmptyFile = (?) WHERE "
                         "fileNumber == (?)";
    countFiles_.text = "SELECT COUNT(*) FROM " + files;
    setMoving_.text = "UPDATE " + statusTable_ + " SET moving = (?)" + statusRow;
    setRestoring_.text = "UPDATE " + statusTable_ + " SET restoring = (?)" + statusRow;
    setTracksDirectory_.text = "UPDATE " + statusTable_ + " SET tracksDirectory = (?)" + statusRow;
    setPoolDirectory_.text = "UPDATE " + statusTable_ + " SET poolDirectory = (?)" + statusRow;
    getMoving_.text = "SELECT moving FROM " + statusTable_ + statusRow;
    getRestoring_.text = "SELECT restoring FROM " + statusTable_ + statusRow;
    getTracksDirectory_.text = "SELECT tracksDirectory FROM " + statusTable_ + statusRow;
    getPoolDirectory_.text = "SELECT poolDirectory FROM " + statusTable_ + statusRow;

    // Prepared now, so that a broken text fails Open rather than a move.
    for (const CachedSql* sql :
         {&insertFile_, &selectAllFiles_, &moveToTrack_, &closeMove_, &selectMovingFiles_,
          &returnToPool_, &countFiles_, &setMoving_, &setRestoring_, &setTracksDirectory_,
          &setPoolDirectory_, &getMoving_, &getRestoring_, &getTracksDirectory_,
          &getPoolDirectory_}) {
        db_.GetCachedStatement(sql->key, sql->text.c_str());
    }
}

void PoolDB::AddFiles(const std::vector<ChunkFile>& files) {
    InsertFiles(files);
}

void PoolDB::AddFiles(const std::set<ChunkFile>& files) {
    InsertFiles(files);
}

template <typename Files>
void PoolDB::InsertFiles(const Files& files) {
    Transaction transaction(db_, false);
    for (const ChunkFile& file : files) {
        // One scoped use per row: a statement must be reset before it is
        // bound again.
        ScopedStatement insert(db_, insertFile_);
        insert->SetIntegerParameter(0, file.GetFileNumber());
        insert->SetIntegerParameter(1, file.GetFileNameSize());
        insert->SetIntegerParameter(2, file.Size());
        insert->SetIntegerParameter(3, 0);
        insert->SetIntegerParameter(4, 0);
        insert->SetIntegerParameter(5, 1);
        insert->Execute();
    }
    transaction.Commit(false);
}

void PoolDB::RemoveAllFiles() {
    db_.Execute("DELETE FROM " + filesTable_, false);
}

std::vector<ChunkFile> PoolDB::GetAllFiles() {
    std::vector<ChunkFile> files;
    ScopedStatement select(db_, selectAllFiles_);
    for (select->Execute(); !select->IsDone(); select->Next()) {
        files.push_back(FileFromRow(*select, 0));
    }
    return files;
}

long PoolDB::GetNumberFiles() {
    ScopedStatement count(db_, countFiles_);
    count->Execute();
    return count->IsDone() ? 0 : count->GetIntegerValue(0);
}

void PoolDB::MoveToTrack(const std::vector<ChunkFile>& files, long trackId) {
    Transaction transaction(db_, false);
    for (const ChunkFile& file : files) {
        ScopedStatement update(db_, moveToTrack_);
        update->SetIntegerParameter(0, trackId);
        update->SetIntegerParameter(1, trackId);
        update->SetIntegerParameter(2, file.GetFileNumber());
        update->Execute();
    }
    transaction.Commit(false);
}

void PoolDB::ReturnToPool(const std::vector<ChunkFile>& files) {
    Transaction transaction(db_, false);
    for (const ChunkFile& file : files) {
        ScopedStatement update(db_, returnToPool_);
        update->SetIntegerParameter(0, file.GetDirectoryNumber());
        update->SetIntegerParameter(1, file.IsFromEmptyFile() ? 1 : 0);
        update->SetIntegerParameter(2, file.GetFileNumber());
        update->Execute();
    }
    transaction.Commit(false);
}

void PoolDB::CloseMoveTransaction() {
    ScopedStatement update(db_, closeMove_);
    update->Execute();
}

std::vector<ChunkFile> PoolDB::GetMovingFiles() {
    std::vector<ChunkFile> files;
    ScopedStatement select(db_, selectMovingFiles_);
    for (select->Execute(); !select->IsDone(); select->Next()) {
        // The status names the track of the unfinished move.
        files.push_back(FileFromRow(*select, select->GetIntegerValue(4)));
    }
    return files;
}

void PoolDB::SetMovingStatus(long status) {
    SetStatusInteger(setMoving_, status);
}

void PoolDB::SetRestoringStatus(long status) {
    SetStatusInteger(setRestoring_, status);
}

void PoolDB::SetTracksDirectory(const std::string& directory) {
    SetStatusText(setTracksDirectory_, directory);
}

void PoolDB::SetPoolDirectory(const std::string& directory) {
    SetStatusText(setPoolDirectory_, directory);
}

long PoolDB::GetMovingStatus() {
    return GetStatusInteger(getMoving_, "GetMovingStatus");
}

long PoolDB::GetRestoringStatus() {
    return GetStatusInteger(getRestoring_, "GetRestoringStatus");
}

std::string PoolDB::GetTracksDirectory() {
    return GetStatusText(getTracksDirectory_, "GetTracksDirectory");
}

std::string PoolDB::GetPoolDirectory() {
    return GetStatusText(getPoolDirectory_, "GetPoolDirectory");
}

std::string PoolDB::CorrectSQLiteBackSlashZero(const std::string& text) {
    if (!text.empty() && text.back() == '\0') {
        return text.substr(0, text.size() - 1);
    }
    return text;
}

void PoolDB::SetStatusInteger(const CachedSql& update, long value) {
    ScopedStatement statement(db_, update);
    statement->SetIntegerParameter(0, value);
    statement->Execute();
}

void PoolDB::SetStatusText(const CachedSql& update, const std::string& value) {
    ScopedStatement statement(db_, update);
    statement->SetTextParameter(0, value);
    statement->Execute();
}

long PoolDB::GetStatusInteger(const CachedSql& select, const char* caller) {
    ScopedStatement statement(db_, select);
    statement->Execute();
    if (statement->IsDone()) {
        MR_LOG(logger_, 40, caller << ": statement is empty");
        return 0;
    }
    return statement->GetIntegerValue(0);
}

std::string PoolDB::GetStatusText(const CachedSql& select, const char* caller) {
    ScopedStatement statement(db_, select);
    statement->Execute();
    if (statement->IsDone()) {
        MR_LOG(logger_, 40, caller << ": statement is empty");
        return std::string();
    }
    return CorrectSQLiteBackSlashZero(statement->GetTextValue(0));
}
