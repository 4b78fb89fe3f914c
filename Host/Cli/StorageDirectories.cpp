#include "Host/Cli/StorageDirectories.h"

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

void StorageDirectories::AddTo(CLI::App& command) {
    command.add_option("--data", data, "Data directory holding tracks/, db/ and pool/")
        ->capture_default_str();
    command.add_option("--tracks", tracks, "Tracks root (with --db and --pool, instead of --data)");
    command.add_option("--db", db, "Database directory");
    command.add_option("--pool", pool, "Pool directory");
}

DataLayout StorageDirectories::Resolve() const {
    if (UsesDataDirectory())
        return DataLayout::Under(data);
    if (tracks.empty() || db.empty() || pool.empty())
        throw CliError("give all three of --tracks, --db and --pool, or none of them (--data)");
    return DataLayout{tracks, db, pool};
}

}  // namespace loopstore::cli
