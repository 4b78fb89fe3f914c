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
    // Stores made before labels and expiries get the columns, rows kept;
    // NULL reads back as no label and no expiry.
    AddMissingColumn("label", "TEXT");
    AddMissingColumn("expiresAt", "INTEGER");
    PrepareStatements();
}

void ProtectionDB::AddMissingColumn(const std::string& column, const std::string& definition) {
    {
        Moreld::SQLite::Statement find(
            db_, "SELECT COUNT(*) FROM pragma_table_info('" + table_ + "') WHERE name = ?");
        find.SetTextParameter(0, column);
        find.Execute();
        const bool present = find.GetIntegerValue(0) != 0;
        find.Reset();
        if (present)
            return;
    }
    MR_LOG(logger_, 30,
           "Adding column " << column << " to table \"" << table_ << "\" on database "
                            << db_.GetPath());
    db_.Execute("ALTER TABLE " + table_ + " ADD COLUMN " + column + " " + definition, false);
}

void ProtectionDB::PrepareStatements() {
    selectAll_.text = "SELECT * FROM " + table_;
    selectOne_.text = "SELECT * FROM " + table_ + " WHERE protectionId == (?)";
    delete_.text = "DELETE FROM " + table_ + " WHERE protectionId == (?)";
    insert_.text = "INSERT INTO " + table_ +
                   " (trackId, protectionId, timepointIn, timepointOut, label, "
                   "expiresAt) VALUES (?, ?, ?, ?, ?, ?)";
    for (const CachedSql* sql : {&selectAll_, &selectOne_, &insert_, &delete_}) {
        db_.GetCachedStatement(sql->key, sql->text.c_str());
    }
}

void ProtectionDB::Protect(long trackId, long protectionId, const TimePoint& from,
                           const TimePoint& to) {
    Protect(trackId, protectionId, from, to, Terms{});
}

void ProtectionDB::Protect(long trackId, long protectionId, const TimePoint& from,
                           const TimePoint& to, const Terms& terms) {
    // A table with the label and expiry columns takes no four-value row: the
    // columns are named.
    ScopedStatement insert(db_, insert_);
    insert->SetIntegerParameter(0, trackId);
    insert->SetIntegerParameter(1, protectionId);
    insert->SetIntegerParameter(2, from.ToNanoseconds());
    insert->SetIntegerParameter(3, to.ToNanoseconds());
    insert->SetTextParameter(4, terms.label);
    if (terms.expires)
        insert->SetIntegerParameter(5, terms.expires->ToNanoseconds());
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
        Terms terms{select->GetTextValue(4), std::nullopt};
        if (const long expires = select->GetIntegerValue(5); expires != 0)
            terms.expires = TimePoint::FromNanoseconds(expires);
        protections.push_back({select->GetIntegerValue(0), select->GetIntegerValue(1),
                               TimePoint::FromNanoseconds(select->GetIntegerValue(2)),
                               TimePoint::FromNanoseconds(select->GetIntegerValue(3)), terms});
    }
    return protections;
}
