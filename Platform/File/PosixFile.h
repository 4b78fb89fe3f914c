#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Moreld::File {

// An open file descriptor and positioned I/O on it (pread/pwrite families),
// for the chunk file classes. Owns the descriptor and closes it on
// destruction. Every failure throws std::runtime_error naming the file and the
// errno text.
//
// Thread-safety: the positioned calls keep no file position, so concurrent
// reads are safe; Close() must not race with anything.
class PosixFile {
  public:
    // Opens `fileName` with open(2) `flags` (O_CLOEXEC is added). On failure
    // throws "<failureText> <fileName>: <strerror>".
    PosixFile(const std::string& fileName, int flags, const char* failureText);
    ~PosixFile();
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    const std::string& GetFileName() const { return fileName_; }

    // Current size of the file in bytes (fstat).
    uint64_t Size() const;

    // Reads up to `size` bytes at `offset`, retrying short reads; returns fewer
    // only at end of file.
    size_t ReadAt(void* buffer, size_t size, uint64_t offset) const;
    // Scatter form of ReadAt over `count` buffers; `iov` is consumed (its
    // entries are advanced past what was read).
    size_t ReadAtV(struct iovec* iov, int count, uint64_t offset) const;

    // Writes all of `size` bytes at `offset`. On failure some of them may have
    // been written.
    void WriteAt(const void* buffer, size_t size, uint64_t offset);
    // Gather form of WriteAt; `iov` is consumed.
    void WriteAtV(struct iovec* iov, int count, uint64_t offset);

    // fdatasync(2).
    void DataSync();
    // Closes now rather than at destruction, so that the error can be seen.
    // Idempotent.
    void Close();

  private:
    static constexpr uint64_t kNoOffset = UINT64_MAX;

    [[noreturn]] void ThrowErrno(const char* operation, uint64_t offset) const;

    std::string fileName_;
    int fd_ = -1;
};

}  // namespace Moreld::File
