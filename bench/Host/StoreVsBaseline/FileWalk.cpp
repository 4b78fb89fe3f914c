#include "bench/Host/StoreVsBaseline/FileWalk.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace loopstore::bench {

std::vector<std::string> RegularFiles(const std::string& directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (entry.is_regular_file())
            files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

namespace {

void Drop(const std::vector<std::string>& files, bool sync) {
    for (const std::string& path : files) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOENT)
                continue;  // a database's journal that went away meanwhile
            throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
        }
        // Dirty pages are not dropped: write them first.
        const bool synced = !sync || ::fdatasync(fd) == 0;
        const int error = errno;
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
        if (!synced)
            throw std::runtime_error("cannot sync " + path + ": " + std::strerror(error));
    }
}

}  // namespace

void SyncAndDropFromCache(const std::vector<std::string>& files) {
    Drop(files, true);
}

void DropFromCache(const std::vector<std::string>& files) {
    Drop(files, false);
}

bool IsOnTmpfs(const std::string& directory) {
    struct statfs info {};
    return ::statfs(directory.c_str(), &info) == 0 &&
           static_cast<unsigned long>(info.f_type) == TMPFS_MAGIC;
}

}  // namespace loopstore::bench
