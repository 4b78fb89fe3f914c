#include "Storage/Indexes/SQLite/ProtectionDB.h"


#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Statement.h"
#include "Storage/Indexes/SQLite/OpenServiceDatabase.h"

ProtectionDB::ProtectionDB()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("ProtectionDB")) {}

ProtectionDB::~ProtectionDB() {
    db_.Close();
}

void ProtectionDB::Open(const std::string& dbDirectory) {
    // The unique index is also made on existing files: it is what refuses a
    // second row for one protection id.
    OpenServiceDatabase(
        db_, dbDirectory, "protections.db", table_,
        "CREATE TABLE " + table_ +
            "(trackId INTEGER, protectionId INTEGER, timepointIn INTEGER, "
            "timepointOut INTEGER)",
        "CREATE UNIQUE INDEX IF NOT EXISTS protectionIndex ON " + table_ + "(protectionId)",
        logger_);
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
