#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace loopstore::test {

// Descriptors of this process open on files under `root`.
inline int OpenFilesUnder(const std::string& root) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), error);
        if (!error && target.string().rfind(root, 0) == 0)
            ++count;
    }
    return count;
}

}  // namespace loopstore::test
