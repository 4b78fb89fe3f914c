#include "Storage/Indexes/SQLite/ProtectionDB.h"

#include <boost/filesystem.hpp>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Statement.h"

namespace {

const char kPragmas[] =
    "PRAGMA JOURNAL_MODE=WAL;PRAGMA SYNCHRONOUS=NORMAL;PRAGMA JOURNAL_MODE=WAL;"
    "PRAGMA LOCKING_MODE=NORMAL;PRAGMA page_size=4096;PRAGMA WAL_AUTOCHECKPOINT=4000;";

}  // namespace

ProtectionDB::ProtectionDB()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("ProtectionDB")) {}

ProtectionDB::~ProtectionDB() {
    db_.Close();
}

void ProtectionDB::Open(const std::string& dbDirectory) {
    const std::string path = (boost::filesystem::path(dbDirectory) / "protections.db").string();
    if (!db_.Open(path)) {
        const std::string message = "Could not open database file " + path;
        MR_LOG(logger_, 50, message);
        throw std::runtime_error(message);
    }
    if (!db_.TableExist(table_)) {
        MR_LOG(logger_, 20, "Creating table \"" << table_ << "\" on database " << path);
        db_.Execute("CREATE TABLE " + table_ +
                        "(trackId INTEGER, protectionId INTEGER, timepointIn INTEGER, "
                        "timepointOut INTEGER)",
                    false);
    }
    // Also run on existing files: the index is what refuses a second row
    // for one protection id.
    db_.Execute("CREATE UNIQUE INDEX IF NOT EXISTS protectionIndex ON " + table_ + "(protectionId)",
                false);
    db_.Execute(kPragmas, false);
    PrepareStatements();
}

void ProtectionDB::PrepareStatements() {
    selectAll_.text = "SELECT * FROM " + table_;
    selectOne_.text = "SELECT * FROM " + table_ + " WHERE protectionId == (?)";
    insert_.text = "INSERT INTO " + table_ + " VALUES (?, ?, ?, ?)";
    delete_.text = "DELETE FROM " + table_ + " WHERE protectionId == (?)";
    for (const CachedSql* sql : {&selectAll_, &selectOne_, &insert_, &delete_}) {
        db_.GetCachedStatement(sql->key, sql->text.c_str());
    }
}

void ProtectionDB::Protect(long trackId, long protectionId, const TimePoint& from,
                           const TimePoint& to) {
    ScopedStatement insert(db_, insert_);
    insert->SetIntegerParameter(0, trackId);
    insert->SetIntegerParameter(1, protectionId);
    insert->SetIntegerParameter(2, from.ToNanoseconds());
    insert->SetIntegerParameter(3, to.ToNanoseconds());
    insert->Execute();
}

void ProtectionDB::UnProtect(long protectionId) {
    ScopedStatement remove(db_, delete_);
    remove->SetIntegerParameter(0, protectionId);
    remove->Execute();
}

long ProtectionDB::GetTrackIdFromProtectionId(long protectionId) {
    ScopedStatement select(db_, selectOne_);
    select->SetIntegerParameter(0, protectionId);
    select->Execute();
    return select->IsDone() ? 0 : select->GetIntegerValue(0);
}

std::vector<ProtectionDB::ProtectionEntry> ProtectionDB::GetProtections() {
    std::vector<ProtectionEntry> protections;
    ScopedStatement select(db_, selectAll_);
    for (select->Execute(); !select->IsDone(); select->Next()) {
        protections.push_back({select->GetIntegerValue(0), select->GetIntegerValue(1),
                               TimePoint::FromNanoseconds(select->GetIntegerValue(2)),
                               TimePoint::FromNanoseconds(select->GetIntegerValue(3))});
    }
    return protections;
}
