#pragma once

#include <string>

#include "Platform/SQLite/Database.h"
#include "Platform/SQLite/Statement.h"

// A statement of a database class: its key in the connection's statement
// cache and its SQL text.
struct CachedSql {
    const char* key;
    std::string text;
};

// One use of a statement from a Database's statement cache: fetched (and
// prepared on first use) on construction, reset on destruction however the
// use ends. A statement left positioned on a row would keep its connection's
// read snapshot, hiding later writes of other connections and holding back
// checkpoints; reset also drops the bindings before the next use.
//
// Ownership: the Database owns the statement and must outlive this object.
// Thread-safety: none; see Moreld::SQLite::Database.
class ScopedStatement {
  public:
    // Throws Moreld::SQLite::SQLiteError when the database is closed or the
    // text does not prepare.
    ScopedStatement(Moreld::SQLite::Database& db, const CachedSql& sql)
        : statement_(db.GetCachedStatement(sql.key, sql.text.c_str())) {}
    ~ScopedStatement() { statement_->Reset(); }
    ScopedStatement(const ScopedStatement&) = delete;
    ScopedStatement& operator=(const ScopedStatement&) = delete;

    Moreld::SQLite::Statement* operator->() const { return statement_; }
    Moreld::SQLite::Statement& operator*() const { return *statement_; }

  private:
    Moreld::SQLite::Statement* statement_;
};
