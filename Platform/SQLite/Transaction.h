#pragma once

#include "Platform/Logging/Logger.h"

namespace Moreld::SQLite {

class Database;

// A scoped SQL transaction: begins on construction, rolls back on
// destruction unless committed. Whatever the scope leaves by an exception
// is thereby undone as a whole.
//
// Ownership: refers to `database`, which must stay open for the life of the
// Transaction. Transactions do not nest: beginning one while the connection
// is already in a transaction throws SQLiteError.
//
// Thread-safety: none; see Database.
class Transaction {
  public:
    // Begins a transaction. With `immediate` false ("BEGIN") locks are taken
    // as statements need them, so a writer may find the file busy at its
    // first write; with `immediate` true ("BEGIN IMMEDIATE") the write lock
    // is taken now, waiting up to the busy timeout, so that the writes of
    // the scope cannot fail for another connection's lock.
    // Throws SQLiteError when the transaction cannot begin.
    explicit Transaction(Database& database, bool immediate = false);
    // Rolls back when not committed; never throws (a failed rollback is
    // logged at level 40).
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Commits. On failure: throws SQLiteError, or, when `ignoreErrors` is
    // true, logs the error and returns false. Either way a failed commit
    // leaves the transaction uncommitted and the destructor rolls it back.
    // Precondition: not committed yet (a second call does nothing and
    // returns true).
    bool Commit(bool ignoreErrors = false);
    bool IsCommitted() const { return committed_; }

  private:
    Database& database_;
    bool committed_ = false;
    tav::mr::logging::Logger logger_;
};

}  // namespace Moreld::SQLite
