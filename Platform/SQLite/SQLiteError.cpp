#include "Platform/SQLite/SQLiteError.h"

#include <sqlite3.h>

namespace Moreld::SQLite {

namespace {

std::string Describe(int code, const std::string& message, const std::string& sql,
                     const std::string& file) {
    std::string text = "SQLite error " + std::to_string(code) + " (" + message + ")";
    if (!file.empty()) {
        text += " on " + file;
    }
    if (!sql.empty()) {
        text += " running \"" + sql + "\"";
    }
    return text;
}

}  // namespace

SQLiteError::SQLiteError(int code, const std::string& message, const std::string& sql,
                         const std::string& file)
    : std::runtime_error(Describe(code, message, sql, file)),
      code_(code),
      message_(message),
      sql_(sql),
      file_(file) {}

SQLiteError SQLiteError::FromHandle(sqlite3* db, int code, const std::string& sql) {
    if (db == nullptr) {
        return SQLiteError(code, sqlite3_errstr(code), sql);
    }
    // An in-memory or temporary database has an empty (or null) file name.
    const char* file = sqlite3_db_filename(db, "main");
    return SQLiteError(code, sqlite3_errmsg(db), sql, file != nullptr ? file : "");
}

}  // namespace Moreld::SQLite
