#include "Host/Cli/DataLayout.h"

#include <filesystem>

#include "Host/Cli/CliError.h"
#include "Host/Cli/PoolInitializer.h"

namespace loopstore::cli {

namespace fs = std::filesystem;

DataLayout DataLayout::Under(const std::string& dataDirectory) {
    const fs::path root(dataDirectory);
    return DataLayout{(root / "tracks").string(), (root / "db").string(), (root / "pool").string()};
}

bool DataLayout::Prepare(uint64_t files, uint64_t fileSize) const {
    for (const std::string& dir : {tracks, db, pool}) {
        std::error_code ec;
        fs::create_directories(dir, ec);
        if (ec)
            throw CliError("cannot create " + dir + ": " + ec.message());
    }
    if (fs::exists(fs::path(db) / "pool.db") || !fs::is_empty(pool))
        return false;
    PoolInitializer(pool, files, fileSize).Run(nullptr);
    return true;
}

}  // namespace loopstore::cli
