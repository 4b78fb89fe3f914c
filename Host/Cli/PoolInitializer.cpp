#include "Host/Cli/PoolInitializer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace fs = std::filesystem;

PoolInitializer::PoolInitializer(std::string directory, uint64_t count, uint64_t fileSize)
    : directory_(std::move(directory)), count_(count), fileSize_(fileSize) {}

void PoolInitializer::Run(const Progress& progress) {
    if (count_ == 0 || fileSize_ == 0)
        throw CliError("pool init: --files and --size must be positive");
    std::error_code ec;
    fs::create_directories(directory_, ec);
    if (ec)
        throw CliError("cannot create the pool directory " + directory_ + ": " + ec.message());
    CheckEmpty();
    uint64_t made = 0;
    try {
        for (; made < count_; ++made) {
            CreateFile(FileName(made + 1));
            if (progress)
                progress(made + 1, count_);
        }
    } catch (...) {
        // Half a pool would be linked as it is at the storage's first start.
        for (uint64_t n = 1; n <= made + 1; ++n)
            fs::remove(FileName(n), ec);
        throw;
    }
}

void PoolInitializer::CheckEmpty() const {
    for (const fs::directory_entry& entry : fs::directory_iterator(directory_)) {
        const std::string name = entry.path().filename().string();
        if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos)
            throw CliError("the pool directory " + directory_ + " already holds pool files (" +
                           name + "); a pool is created once");
    }
}

std::string PoolInitializer::FileName(uint64_t number) const {
    char name[32];
    std::snprintf(name, sizeof name, "%0*llu", kNameWidth, static_cast<unsigned long long>(number));
    return (fs::path(directory_) / name).string();
}

void PoolInitializer::CreateFile(const std::string& path) const {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        throw CliError("cannot create pool file " + path + ": " + std::strerror(errno));
    const int rc = ::posix_fallocate(fd, 0, static_cast<off_t>(fileSize_));
    const int closeRc = ::close(fd);
    if (rc != 0)
        throw CliError("cannot preallocate " + std::to_string(fileSize_) + " bytes for " + path +
                       ": " + std::strerror(rc));
    if (closeRc != 0)
        throw CliError("cannot close pool file " + path + ": " + std::strerror(errno));
}

}  // namespace loopstore::cli
