#pragma once

#include <stdexcept>
#include <string>

struct sqlite3;

namespace Moreld::SQLite {

// The exception thrown by the SQLite wrapper. Carries SQLite's (extended)
// result code, SQLite's own message, the SQL text being run and, when known,
// the database file; what() puts all of them in one line:
//   SQLite error 2067 (UNIQUE constraint failed: t.a) on /db/12.db running "INSERT ..."
class SQLiteError : public std::runtime_error {
  public:
    SQLiteError(int code, const std::string& message, const std::string& sql,
                const std::string& file = std::string());

    // Builds the error from the connection's current state: its message and
    // its file name. `db` may be null (then the message is SQLite's generic
    // text for `code`).
    static SQLiteError FromHandle(sqlite3* db, int code, const std::string& sql);

    // The extended result code (for example SQLITE_CONSTRAINT_UNIQUE).
    int Code() const { return code_; }
    // The primary result code (for example SQLITE_CONSTRAINT).
    int PrimaryCode() const { return code_ & 0xff; }
    const std::string& Message() const { return message_; }
    const std::string& Sql() const { return sql_; }
    const std::string& File() const { return file_; }

  private:
    int code_;
    std::string message_;
    std::string sql_;
    std::string file_;
};

}  // namespace Moreld::SQLite
