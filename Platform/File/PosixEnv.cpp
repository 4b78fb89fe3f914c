#include "Platform/File/PosixEnv.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Platform/File/PosixFile.h"

namespace Moreld::File {

namespace {

std::error_code LastError() {
    return std::error_code(errno, std::generic_category());
}

std::error_code Check(int result) {
    return result == 0 ? std::error_code() : LastError();
}

// The process id a holder wrote into its lock file; 0 when unreadable.
long ReadHolder(int fd) {
    char text[32] = {};
    const ssize_t got = ::pread(fd, text, sizeof(text) - 1, 0);
    return got > 0 ? std::strtol(text, nullptr, 10) : 0;
}

void WriteHolder(int fd) {
    const std::string text = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) == 0) {
        // Only informative: a failure leaves the lock held all the same.
        [[maybe_unused]] ssize_t written = ::pwrite(fd, text.data(), text.size(), 0);
    }
}

std::atomic<Env*> installed{nullptr};

}  // namespace

Env& Env::Posix() {
    static PosixEnv posix;
    return posix;
}

Env& Env::Get() {
    Env* env = installed.load(std::memory_order_acquire);
    return env != nullptr ? *env : Posix();
}

Env* Env::Install(Env* env) {
    return installed.exchange(env, std::memory_order_acq_rel);
}

std::string ParentDirectory(const std::string& path) {
    std::filesystem::path parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}

std::unique_ptr<File> PosixEnv::OpenFile(const std::string& name, int flags,
                                         const char* failureText) {
    return std::make_unique<PosixFile>(name, flags, failureText);
}

std::error_code PosixEnv::Rename(const std::string& from, const std::string& to) {
    return Check(::rename(from.c_str(), to.c_str()));
}

std::error_code PosixEnv::CreateDirectory(const std::string& path) {
    return Check(::mkdir(path.c_str(), 0755));
}

std::error_code PosixEnv::RemoveFile(const std::string& path) {
    return Check(::unlink(path.c_str()));
}

std::error_code PosixEnv::RemoveTree(const std::string& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    return error;
}

std::error_code PosixEnv::SyncDirectory(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return LastError();
    }
    std::error_code error = Check(::fsync(fd));
    ::close(fd);
    return error;
}

std::unique_ptr<FileLock> PosixEnv::LockFile(const std::string& path, long& holder,
                                             std::error_code& error) {
    holder = 0;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = LastError();
        return nullptr;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        error = LastError();
        if (errno == EWOULDBLOCK) {
            holder = ReadHolder(fd);
        }
        ::close(fd);
        return nullptr;
    }
    WriteHolder(fd);
    error.clear();
    return std::make_unique<FileLock>(fd, path);
}

}  // namespace Moreld::File
