#include "Platform/SQLite/Statement.h"

#include <sqlite3.h>

#include <cctype>

#include "Platform/SQLite/Database.h"
#include "Platform/SQLite/SQLiteError.h"

namespace Moreld::SQLite {

namespace {

// Only white space and ';' may follow the single statement: anything else
// would be silently dropped by the prepare.
bool OnlySeparatorsIn(const char* tail) {
    for (; tail != nullptr && *tail != '\0'; ++tail) {
        if (*tail != ';' && std::isspace(static_cast<unsigned char>(*tail)) == 0) {
            return false;
        }
    }
    return true;
}

std::string FileOf(sqlite3* db) {
    const char* file = sqlite3_db_filename(db, "main");
    return file != nullptr ? file : "";
}

}  // namespace

Statement::Statement(Database& database, const std::string& sql)
    : db_(database.Handle()), sql_(sql) {
    if (db_ == nullptr) {
        throw SQLiteError(SQLITE_MISUSE, "database is not open", sql_, database.GetPath());
    }
    const char* tail = nullptr;
    int rc = sqlite3_prepare_v2(db_, sql_.c_str(), static_cast<int>(sql_.size() + 1), &statement_,
                                &tail);
    if (rc != SQLITE_OK) {
        throw SQLiteError::FromHandle(db_, rc, sql_);
    }
    if (statement_ == nullptr || !OnlySeparatorsIn(tail)) {
        sqlite3_finalize(statement_);
        statement_ = nullptr;
        throw SQLiteError(SQLITE_MISUSE, "exactly one SQL statement expected", sql_,
                          database.GetPath());
    }
}

Statement::~Statement() {
    sqlite3_finalize(statement_);
}

void Statement::SetIntegerParameter(unsigned int index, long value) {
    PrepareToBind(index);
    CheckBind(sqlite3_bind_int64(statement_, static_cast<int>(index) + 1, value), index);
}

void Statement::SetTextParameter(unsigned int index, const std::string& value) {
    PrepareToBind(index);
    CheckBind(sqlite3_bind_text64(statement_, static_cast<int>(index) + 1, value.data(),
                                  value.size(), SQLITE_TRANSIENT, SQLITE_UTF8),
              index);
}

void Statement::Execute() {
    if (stepped_) {
        sqlite3_reset(statement_);  // keeps the bindings
    }
    done_ = false;
    Step();
}

void Statement::Next() {
    // Stepping past SQLITE_DONE would silently restart the statement.
    if (!done_) {
        Step();
    }
}

long Statement::GetIntegerValue(unsigned int column) const {
    CheckColumn(column);
    return sqlite3_column_int64(statement_, static_cast<int>(column));
}

std::string Statement::GetTextValue(unsigned int column) const {
    CheckColumn(column);
    // column_text before column_bytes: the byte count is of the text form.
    const unsigned char* text = sqlite3_column_text(statement_, static_cast<int>(column));
    int size = sqlite3_column_bytes(statement_, static_cast<int>(column));
    if (text == nullptr) {
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
}

void Statement::Reset() {
    // reset repeats the error of a failed step, which was already thrown.
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    stepped_ = false;
    done_ = true;
}

void Statement::Step() {
    stepped_ = true;
    int rc = sqlite3_step(statement_);
    if (rc == SQLITE_ROW) {
        return;
    }
    done_ = true;
    if (rc == SQLITE_DONE) {
        return;
    }
    // Read the message before reset, then reset so that the statement can be
    // bound again (a failed statement refuses bindings until reset).
    SQLiteError error = SQLiteError::FromHandle(db_, rc, sql_);
    sqlite3_reset(statement_);
    stepped_ = false;
    throw error;
}

void Statement::PrepareToBind(unsigned int index) {
    // SQLite refuses bindings once a statement has been stepped, even to its
    // end, until it is reset.
    if (stepped_) {
        sqlite3_reset(statement_);
        stepped_ = false;
        done_ = true;
    }
    if (index >= static_cast<unsigned int>(sqlite3_bind_parameter_count(statement_))) {
        throw SQLiteError(SQLITE_RANGE,
                          "parameter index " + std::to_string(index) + " out of range (" +
                              std::to_string(sqlite3_bind_parameter_count(statement_)) +
                              " parameters)",
                          sql_, FileOf(db_));
    }
}

void Statement::CheckBind(int rc, unsigned int index) const {
    if (rc != SQLITE_OK) {
        throw SQLiteError::FromHandle(db_, rc, sql_ + " (parameter " + std::to_string(index) + ")");
    }
}

void Statement::CheckColumn(unsigned int column) const {
    if (done_) {
        throw SQLiteError(SQLITE_MISUSE,
                          "no current row to read column " + std::to_string(column) + " from", sql_,
                          FileOf(db_));
    }
    if (column >= static_cast<unsigned int>(sqlite3_column_count(statement_))) {
        throw SQLiteError(SQLITE_RANGE,
                          "column " + std::to_string(column) + " out of range (" +
                              std::to_string(sqlite3_column_count(statement_)) + " columns)",
                          sql_, FileOf(db_));
    }
}

}  // namespace Moreld::SQLite
