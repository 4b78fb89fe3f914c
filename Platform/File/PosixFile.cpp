#include "Platform/File/PosixFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Platform/Services/StorageErrors.h"

namespace Moreld::File {

namespace {

// Drops the first `done` bytes of a buffer list; returns the new list start.
struct iovec* Advance(struct iovec* iov, int& count, size_t done) {
    while (count > 0 && done >= iov->iov_len) {
        done -= iov->iov_len;
        ++iov;
        --count;
    }
    if (count > 0) {
        iov->iov_base = static_cast<char*>(iov->iov_base) + done;
        iov->iov_len -= done;
    }
    return iov;
}

}  // namespace

PosixFile::PosixFile(const std::string& fileName, int flags, const char* failureText)
    : fileName_(fileName) {
    fd_ = ::open(fileName.c_str(), flags | O_CLOEXEC);
    if (fd_ < 0) {
        throw MoreldStorageApi::IoError(std::string(failureText) + " " + fileName + ": " +
                                        std::strerror(errno));
    }
}

PosixFile::~PosixFile() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

uint64_t PosixFile::Size() const {
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
        ThrowErrno("fstat", kNoOffset);
    }
    return static_cast<uint64_t>(st.st_size);
}

size_t PosixFile::ReadAt(void* buffer, size_t size, uint64_t offset) const {
    struct iovec iov = {buffer, size};
    return ReadAtV(&iov, 1, offset);
}

void PosixFile::WillNeed(uint64_t offset, uint64_t size) const {
    // Only a hint: a failure costs the overlap, nothing else.
    static_cast<void>(::posix_fadvise(fd_, static_cast<off_t>(offset), static_cast<off_t>(size),
                                      POSIX_FADV_WILLNEED));
}

size_t PosixFile::ReadAtV(struct iovec* iov, int count, uint64_t offset) const {
    size_t total = 0;
    while (count > 0) {
        ssize_t n = ::preadv(fd_, iov, count, static_cast<off_t>(offset + total));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            ThrowErrno("read", offset + total);
        }
        if (n == 0) {
            break;  // end of file
        }
        total += static_cast<size_t>(n);
        iov = Advance(iov, count, static_cast<size_t>(n));
    }
    return total;
}

void PosixFile::WriteAt(const void* buffer, size_t size, uint64_t offset) {
    struct iovec iov = {const_cast<void*>(buffer), size};
    WriteAtV(&iov, 1, offset);
}

void PosixFile::WriteAtV(struct iovec* iov, int count, uint64_t offset) {
    uint64_t position = offset;
    while (count > 0) {
        ssize_t n = ::pwritev(fd_, iov, count, static_cast<off_t>(position));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            ThrowErrno("write", position);
        }
        if (n == 0) {
            errno = EIO;  // a regular file never accepts nothing; do not spin
            ThrowErrno("write", position);
        }
        position += static_cast<uint64_t>(n);
        iov = Advance(iov, count, static_cast<size_t>(n));
    }
}

void PosixFile::DataSync() {
    if (::fdatasync(fd_) != 0) {
        ThrowErrno("fdatasync", kNoOffset);
    }
}

void PosixFile::Close() {
    if (fd_ < 0) {
        return;
    }
    int fd = fd_;
    fd_ = -1;
    // The descriptor is gone even when close fails: retrying could close
    // another thread's newly opened file.
    if (::close(fd) != 0) {
        ThrowErrno("close", kNoOffset);
    }
}

void PosixFile::ThrowErrno(const char* operation, uint64_t offset) const {
    int error = errno;
    std::string text = std::string("Cannot ") + operation + " chunk file " + fileName_;
    if (offset != kNoOffset) {
        text += " at offset " + std::to_string(offset);
    }
    throw MoreldStorageApi::IoError(text + ": " + std::strerror(error));
}

}  // namespace Moreld::File
