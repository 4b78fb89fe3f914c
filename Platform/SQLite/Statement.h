#pragma once

#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace Moreld::SQLite {

class Database;

// One prepared SQL statement and the cursor over its rows.
//
// Use: bind parameters (0-based), Execute() to run it and land on the first
// row, read columns while !IsDone(), Next() to advance, Reset() when
// finished so that the statement releases its read snapshot and its
// bindings before the next use.
//
// Ownership: finalizes its statement on destruction. Works on the connection
// of the Database it was built with, which must stay open for the whole life
// of the Statement.
//
// Thread-safety: none; see Database.
class Statement {
  public:
    // Prepares `sql` (a single statement). Throws SQLiteError with the SQL
    // text when the Database is closed or the text does not prepare.
    Statement(Database& database, const std::string& sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Bind parameter `index` (0-based). A statement still positioned on a
    // row is reset first: binding starts a new run. Throws SQLiteError when
    // `index` is out of range.
    void SetIntegerParameter(unsigned int index, long value);
    // The text is bound byte for byte, embedded NULs included.
    void SetTextParameter(unsigned int index, const std::string& value);

    // Runs the statement from the start with the current bindings and
    // positions it on the first row, or sets the done state when there is
    // none. On failure the statement is reset (bindings kept) and
    // SQLiteError is thrown with SQLite's message and the SQL text.
    void Execute();
    // Moves to the next row, or sets the done state after the last one.
    // Does nothing once done. Failures as for Execute().
    void Next();
    // True when no row is current: before Execute(), after the last row,
    // after Reset().
    bool IsDone() const { return done_; }

    // Column values of the current row, `column` 0-based. NULL reads as 0 or
    // as the empty text. Throws SQLiteError when no row is current or
    // `column` is out of range.
    long GetIntegerValue(unsigned int column) const;
    // The text byte for byte, embedded NULs included.
    std::string GetTextValue(unsigned int column) const;

    // Ends the current run and clears all bindings; the statement is ready
    // to be bound and executed again. Never throws.
    void Reset();

    const std::string& GetSql() const { return sql_; }

  private:
    void Step();
    void PrepareToBind(unsigned int index);
    void CheckBind(int rc, unsigned int index) const;
    void CheckColumn(unsigned int column) const;

    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
    std::string sql_;
    bool done_ = true;
    bool stepped_ = false;  // stepped since the last reset
};

}  // namespace Moreld::SQLite
