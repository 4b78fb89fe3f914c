#include "Platform/File/FileLock.h"

#include <sys/file.h>
#include <unistd.h>

#include <utility>

namespace Moreld::File {

FileLock::FileLock(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

FileLock::~FileLock() {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
}

}  // namespace Moreld::File
