#include "fuzz/Support/MemoryFile.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace loopstore::fuzz {

MemoryFile::MemoryFile() : fd_(memfd_create("loopstore-fuzz", MFD_CLOEXEC)) {
    if (fd_ < 0)
        throw std::runtime_error(std::string("memfd_create: ") + std::strerror(errno));
    path_ = "/proc/self/fd/" + std::to_string(fd_);
}

MemoryFile::~MemoryFile() {
    ::close(fd_);
}

void MemoryFile::Write(std::string_view bytes) {
    if (::ftruncate(fd_, static_cast<off_t>(bytes.size())) != 0)
        throw std::runtime_error(std::string("ftruncate of the memory file: ") +
                                 std::strerror(errno));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n =
            ::pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (n <= 0)
            throw std::runtime_error(std::string("write to the memory file: ") +
                                     std::strerror(errno));
        done += static_cast<size_t>(n);
    }
}

}  // namespace loopstore::fuzz
