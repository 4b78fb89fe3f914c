#include "Storage/Indexes/SQLite/TrackPropertiesDB.h"

#include <boost/filesystem.hpp>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Statement.h"
#include "Platform/SQLite/Transaction.h"

using Moreld::SQLite::Transaction;

namespace {

const char kPragmas[] =
    "PRAGMA JOURNAL_MODE=WAL;PRAGMA SYNCHRONOUS=NORMAL;PRAGMA JOURNAL_MODE=WAL;"
    "PRAGMA LOCKING_MODE=NORMAL;PRAGMA page_size=4096;PRAGMA WAL_AUTOCHECKPOINT=4000;";

}  // namespace

TrackPropertiesDB::TrackPropertiesDB()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("TrackPropertiesDB")) {}

TrackPropertiesDB::~TrackPropertiesDB() {
    db_.Close();
}

void TrackPropertiesDB::Open(const std::string& dbDirectory) {
    const std::string path = (boost::filesystem::path(dbDirectory) / "properties.db").string();
    if (!db_.Open(path)) {
        const std::string message = "Could not open database file " + path;
        MR_LOG(logger_, 50, message);
        throw std::runtime_error(message);
    }
    if (!db_.TableExist(table_)) {
        MR_LOG(logger_, 20, "Creating table \"" << table_ << "\" on database " << path);
        db_.Execute("CREATE TABLE " + table_ + "(trackId INTEGER, key TEXT, value TEXT)", false);
    }
    db_.Execute(kPragmas, false);
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
