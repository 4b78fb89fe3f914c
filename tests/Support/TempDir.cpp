#include "tests/Support/TempDir.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace loopstore::test {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/loopstore-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::operator/(const std::string& name) const { return path_ + "/" + name; }

void CreatePreallocatedFile(const std::string& path, unsigned long size) {
    int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "open " + path);
    }
    int rc = posix_fallocate(fd, 0, static_cast<off_t>(size));
    close(fd);
    if (rc != 0) {
        throw std::system_error(rc, std::generic_category(), "posix_fallocate " + path);
    }
}

}  // namespace loopstore::test
