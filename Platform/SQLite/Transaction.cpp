#include "Platform/SQLite/Transaction.h"

#include <sqlite3.h>

#include <exception>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/SQLite/Database.h"

namespace Moreld::SQLite {

Transaction::Transaction(Database& database, bool immediate)
    : database_(database),
      logger_(tav::mr::logging::LoggingManager::GetLogger("Moreld.SQLite.Transaction")) {
    database_.Execute(immediate ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
    if (committed_ || !database_.IsOpen()) {
        return;
    }
    // Some errors (full disk, I/O, interrupted) already rolled the
    // transaction back; a second ROLLBACK would only report that.
    if (sqlite3_get_autocommit(database_.Handle()) != 0) {
        return;
    }
    try {
        // A failure is logged by the Database.
        database_.Execute("ROLLBACK", true);
    } catch (const std::exception& e) {
        MR_LOG(logger_, 40, "Rollback failed on " << database_.GetPath() << ": " << e.what());
    }
}

bool Transaction::Commit(bool ignoreErrors) {
    if (committed_) {
        return true;
    }
    if (!database_.Execute("COMMIT", ignoreErrors)) {
        return false;
    }
    committed_ = true;
    return true;
}

}  // namespace Moreld::SQLite
