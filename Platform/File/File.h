#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Moreld::File {

// One open file and positioned I/O on it, as an Env hands it out. The chunk
// file classes use nothing else to reach their bytes, so that a test
// environment can watch, fail or undo every write.
//
// Every failure throws std::runtime_error naming the file, the offset when
// there is one, and the system's reason.
//
// Thread-safety: the positioned calls keep no file position, so concurrent
// reads are safe; Close() must not race with anything.
class File {
  public:
    virtual ~File() = default;

    virtual const std::string& GetFileName() const = 0;
    // Current size of the file in bytes.
    virtual uint64_t Size() const = 0;

    // Reads up to `size` bytes at `offset`, retrying short reads; returns
    // fewer only at end of file.
    virtual size_t ReadAt(void* buffer, size_t size, uint64_t offset) const = 0;
    // Scatter form of ReadAt over `count` buffers; `iov` is consumed (its
    // entries are advanced past what was read).
    virtual size_t ReadAtV(struct iovec* iov, int count, uint64_t offset) const = 0;

    // Tells the system that `size` bytes at `offset` will be read soon, so
    // that it can start reading them while the caller reads elsewhere. A
    // hint: does nothing by default, and never fails.
    virtual void WillNeed(uint64_t /*offset*/, uint64_t /*size*/) const {}

    // Writes all of `size` bytes at `offset`. On failure some of them may
    // have been written.
    virtual void WriteAt(const void* buffer, size_t size, uint64_t offset) = 0;
    // Gather form of WriteAt; `iov` is consumed.
    virtual void WriteAtV(struct iovec* iov, int count, uint64_t offset) = 0;

    // Makes what was written durable (fdatasync).
    virtual void DataSync() = 0;
    // Closes now rather than at destruction, so that the error can be seen.
    // Idempotent.
    virtual void Close() = 0;
};

}  // namespace Moreld::File
