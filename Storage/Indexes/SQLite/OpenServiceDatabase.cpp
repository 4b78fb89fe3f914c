#include "Storage/Indexes/SQLite/OpenServiceDatabase.h"

#include <boost/filesystem.hpp>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Storage/Indexes/SQLite/DurableCommits.h"

namespace {

// The journal mode is set twice on purpose: the line is kept as the
// databases have always been opened.
const char kPragmas[] =
    "PRAGMA JOURNAL_MODE=WAL;PRAGMA SYNCHRONOUS=NORMAL;PRAGMA JOURNAL_MODE=WAL;"
    "PRAGMA LOCKING_MODE=NORMAL;PRAGMA page_size=4096;PRAGMA WAL_AUTOCHECKPOINT=4000;";

}  // namespace

void OpenServiceDatabase(Moreld::SQLite::Database& db, const std::string& directory,
                         const std::string& fileName, const std::string& table,
                         const std::string& createSql, const std::string& extraSql,
                         const tav::mr::logging::Logger& logger) {
    const std::string path = (boost::filesystem::path(directory) / fileName).string();
    if (!db.Open(path)) {
        const std::string message = "Could not open database file " + path;
        MR_LOG(logger, 50, message);
        throw std::runtime_error(message);
    }
    if (!db.TableExist(table)) {
        MR_LOG(logger, 20, "Creating table \"" << table << "\" on database " << path);
        db.Execute(createSql, false);
    }
    if (!extraSql.empty())
        db.Execute(extraSql, false);
    db.Execute(kPragmas, false);
    db.Execute(kDurableCommits, false);
}
