#include "Storage/Indexes/SQLite/TrackPropertiesDB.h"


#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Statement.h"
#include "Platform/SQLite/Transaction.h"
#include "Storage/Indexes/SQLite/OpenServiceDatabase.h"

using Moreld::SQLite::Transaction;

TrackPropertiesDB::TrackPropertiesDB()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("TrackPropertiesDB")) {}

TrackPropertiesDB::~TrackPropertiesDB() {
    db_.Close();
}

void TrackPropertiesDB::Open(const std::string& dbDirectory) {
    OpenServiceDatabase(db_, dbDirectory, "properties.db", table_,
                        "CREATE TABLE " + table_ + "(trackId INTEGER, key TEXT, value TEXT)", "",
                        logger_);
    PrepareStatements();
}

void TrackPropertiesDB::PrepareStatements() {
    const std::string byTrack = " WHERE trackId == (?)";
    selectAll_.text = "SELECT * FROM " + table_;
    insert_.text = "INSERT INTO " + table_ + " VALUES (?, ?, ?)";
    deleteOne_.text = "DELETE FROM " + table_ + byTrack + " AND key == (?)";
    deleteTrack_.text = "DELETE FROM " + table_ + byTrack;
    // Kept byte for byte, no blank after the last "==": traces and tests
    // match the statement texts exactly.
    update_.text = "UPDATE " + table_ + " SET value = (?)" + byTrack + " AND key ==(?)";
    for (const CachedSql* sql : {&selectAll_, &insert_, &deleteOne_, &deleteTrack_, &update_}) {
        db_.GetCachedStatement(sql->key, sql->text.c_str());
    }
}

void TrackPropertiesDB::SetTrackProperties(long trackId, const Properties& properties) {
    Transaction transaction(db_, false);
    for (const auto& [key, value] : properties) {
        ScopedStatement insert(db_, insert_);
        insert->SetIntegerParameter(0, trackId);
        insert->SetTextParameter(1, key);
        insert->SetTextParameter(2, value);
        insert->Execute();
    }
    transaction.Commit(false);
}

void TrackPropertiesDB::UpdateTrackProperties(long trackId, const Properties& properties) {
    Transaction transaction(db_, false);
    for (const auto& [key, value] : properties) {
        ScopedStatement update(db_, update_);
        update->SetTextParameter(0, value);
        update->SetIntegerParameter(1, trackId);
        update->SetTextParameter(2, key);
        update->Execute();
    }
    transaction.Commit(false);
}

void TrackPropertiesDB::RemoveTrackProperties(long trackId, const std::vector<std::string>& keys) {
    Transaction transaction(db_, false);
    for (const std::string& key : keys) {
        ScopedStatement remove(db_, deleteOne_);
        remove->SetIntegerParameter(0, trackId);
        remove->SetTextParameter(1, key);
        remove->Execute();
    }
    transaction.Commit(false);
}

void TrackPropertiesDB::RemoveAll(long trackId) {
    ScopedStatement remove(db_, deleteTrack_);
    remove->SetIntegerParameter(0, trackId);
    remove->Execute();
}

std::map<long, TrackPropertiesDB::Properties> TrackPropertiesDB::GetProperties() {
    std::map<long, Properties> properties;
    ScopedStatement select(db_, selectAll_);
    for (select->Execute(); !select->IsDone(); select->Next()) {
        // emplace never overwrites: of duplicate rows the first read wins.
        properties[select->GetIntegerValue(0)].emplace(select->GetTextValue(1),
                                                       select->GetTextValue(2));
    }
    return properties;
}
