#pragma once

#include <map>
#include <memory>
#include <string>

#include "Platform/Logging/Logger.h"

struct sqlite3;

namespace Moreld::SQLite {

class Statement;

// One connection to one SQLite database file, with a cache of prepared
// statements keyed by the caller's choice of text.
//
// Ownership: the Database owns the connection and every statement handed out
// by GetCachedStatement; they are finalized before the connection closes.
// Statements built directly (Statement(Database&, sql)) belong to their
// creator and must not be used after the Database is closed or destroyed.
//
// Connections wait up to kBusyTimeoutMs for a lock held by another
// connection on the same file before failing with SQLITE_BUSY.
//
// Thread-safety: none. A Database, its statements and its transactions are
// used by one thread at a time; the owner serialises calls.
class Database {
  public:
    static constexpr int kBusyTimeoutMs = 5000;

    Database();
    // Closes the connection.
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;
    // The moved-from Database is closed. Caller-owned statements keep
    // working with the connection they were made on; a Transaction must not
    // span a move.
    Database(Database&& other) noexcept;
    Database& operator=(Database&& other) noexcept;

    // Opens (creating when missing) the database file at `path`, closing any
    // connection this object held before. Returns false when the file cannot
    // be opened; GetLastError() then tells why and the object is closed.
    bool Open(const std::string& path);
    // Finalizes the cached statements and closes the connection. Harmless
    // when already closed.
    void Close();
    bool IsOpen() const { return db_ != nullptr; }
    // The path given to the last Open, successful or not.
    const std::string& GetPath() const { return path_; }
    // The reason of the last failed Open or of the last ignored error.
    const std::string& GetLastError() const { return lastError_; }

    // True when a table named `name` exists. Throws SQLiteError when the
    // database is closed or cannot be read.
    bool TableExist(const std::string& name);

    // Runs `sql`, a text of one or more statements separated by ';', ignoring
    // any rows they produce. Statements before a failing one keep their
    // effect. On failure: throws SQLiteError (code, message, SQL text), or,
    // when `ignoreErrors` is true, logs the error at level 40, records it for
    // GetLastError() and returns false. Returns true on success.
    bool Execute(const std::string& sql, bool ignoreErrors = false);

    // The statement prepared from `sql` the first time `key` was asked for;
    // later calls with the same key return the same object, reset or not as
    // its last user left it. The Database keeps ownership. Throws SQLiteError
    // when `sql` does not prepare (nothing is cached then) or when `key`
    // already names a statement of another SQL text.
    Statement* GetCachedStatement(const char* key, const char* sql);

    // The raw connection, null when closed; for Statement and Transaction.
    sqlite3* Handle() const { return db_; }

  private:
    sqlite3* db_ = nullptr;
    std::string path_;
    std::string lastError_;
    std::map<std::string, std::unique_ptr<Statement>> statements_;
    tav::mr::logging::Logger logger_;
};

}  // namespace Moreld::SQLite
