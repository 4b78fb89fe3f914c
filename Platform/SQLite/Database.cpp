#include "Platform/SQLite/Database.h"

#include <sqlite3.h>

#include <cstring>
#include <utility>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/EnvVfs.h"
#include "Platform/SQLite/SQLiteError.h"
#include "Platform/SQLite/Statement.h"

namespace Moreld::SQLite {

Database::Database()
    : logger_(tav::mr::logging::LoggingManager::GetLogger("Moreld.SQLite.Database")) {}

Database::~Database() {
    Close();
}

Database::Database(Database&& other) noexcept
    : db_(std::exchange(other.db_, nullptr)),
      path_(std::move(other.path_)),
      lastError_(std::move(other.lastError_)),
      statements_(std::move(other.statements_)),
      logger_(other.logger_) {
    other.statements_.clear();
}

Database& Database::operator=(Database&& other) noexcept {
    if (this != &other) {
        Close();
        db_ = std::exchange(other.db_, nullptr);
        path_ = std::move(other.path_);
        lastError_ = std::move(other.lastError_);
        statements_ = std::move(other.statements_);
        other.statements_.clear();
    }
    return *this;
}

bool Database::Open(const std::string& path) {
    Close();
    path_ = path;
    sqlite3* db = nullptr;
    // One thread at a time uses a connection (see the header), so SQLite's
    // own per-call connection mutex would only cost a lock round trip on
    // every step and every column read.
    int rc = sqlite3_open_v2(path.c_str(), &db,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                             EnvVfsName());
    if (rc != SQLITE_OK) {
        // SQLite hands back a handle even on failure, carrying the message.
        lastError_ = "Cannot open " + path + ": " +
                     (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close(db);
        return false;
    }
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    db_ = db;
    lastError_.clear();
    return true;
}

void Database::Close() {
    // Cached statements must go first: a connection with live statements
    // would only become a zombie.
    statements_.clear();
    if (db_ != nullptr) {
        // close_v2 defers the real close until caller-owned statements are
        // finalized instead of failing with SQLITE_BUSY.
        sqlite3_close_v2(db_);
        db_ = nullptr;
    }
}

bool Database::TableExist(const std::string& name) {
    Statement query(*this, "SELECT 1 FROM sqlite_master WHERE type == 'table' AND name == (?)");
    query.SetTextParameter(0, name);
    query.Execute();
    return !query.IsDone();
}

bool Database::Execute(const std::string& sql, bool ignoreErrors) {
    if (db_ == nullptr) {
        SQLiteError error(SQLITE_MISUSE, "database is not open", sql);
        if (!ignoreErrors) {
            throw error;
        }
        lastError_ = error.what();
        MR_LOG(logger_, 40, "Ignoring " << lastError_);
        return false;
    }
    char* message = nullptr;
    int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
    if (rc == SQLITE_OK) {
        return true;
    }
    const char* file = sqlite3_db_filename(db_, "main");
    SQLiteError error(rc, message != nullptr ? message : sqlite3_errstr(rc), sql,
                      file != nullptr ? file : "");
    sqlite3_free(message);
    if (!ignoreErrors) {
        throw error;
    }
    lastError_ = error.what();
    MR_LOG(logger_, 40, "Ignoring " << lastError_);
    return false;
}

Statement* Database::GetCachedStatement(const char* key, const char* sql) {
    auto found = statements_.find(key);
    if (found != statements_.end()) {
        // Two call sites sharing a key by mistake would silently run each
        // other's SQL.
        if (found->second->GetSql() != sql) {
            throw SQLiteError(SQLITE_MISUSE,
                              std::string("statement cache key \"") + key + "\" already holds \"" +
                                  found->second->GetSql() + "\"",
                              sql, path_);
        }
        return found->second.get();
    }
    auto statement = std::make_unique<Statement>(*this, sql);
    Statement* raw = statement.get();
    statements_.emplace(key, std::move(statement));
    return raw;
}

}  // namespace Moreld::SQLite
