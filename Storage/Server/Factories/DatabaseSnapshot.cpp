#include "Storage/Server/Factories/DatabaseSnapshot.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

DatabaseSnapshot::DatabaseSnapshot() {
    std::string pattern = (fs::temp_directory_path() / "loopstore-check.XXXXXX").string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr)
        throw std::runtime_error("Cannot create a temporary directory like " + pattern);
    directory_ = buffer.data();
}

DatabaseSnapshot::~DatabaseSnapshot() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

void DatabaseSnapshot::Copy(const std::string& dbDirectory, const std::string& name) const {
    for (const std::string& file : {name, name + "-wal"}) {
        const fs::path from = fs::path(dbDirectory) / file;
        if (file != name && !fs::exists(from))
            continue;
        std::error_code error;
        fs::copy_file(from, fs::path(directory_) / file, fs::copy_options::overwrite_existing,
                      error);
        if (error)
            throw std::runtime_error("Cannot read " + from.string() + ": " + error.message());
    }
}
