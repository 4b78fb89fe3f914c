#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Platform/File/File.h"

namespace Moreld::File {

// A File over an open descriptor (pread/pwrite families): what the POSIX
// Env hands out. Owns the descriptor and closes it on destruction. Every
// failure throws std::runtime_error naming the file and the errno text.
//
// Thread-safety: as File.
class PosixFile final : public File {
  public:
    // Opens `fileName` with open(2) `flags` (O_CLOEXEC is added). On failure
    // throws "<failureText> <fileName>: <strerror>".
    PosixFile(const std::string& fileName, int flags, const char* failureText);
    ~PosixFile() override;
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    const std::string& GetFileName() const override { return fileName_; }
    uint64_t Size() const override;  // fstat
    size_t ReadAt(void* buffer, size_t size, uint64_t offset) const override;
    size_t ReadAtV(struct iovec* iov, int count, uint64_t offset) const override;
    void WillNeed(uint64_t offset, uint64_t size) const override;  // posix_fadvise(2)
    void WriteAt(const void* buffer, size_t size, uint64_t offset) override;
    void WriteAtV(struct iovec* iov, int count, uint64_t offset) override;
    void DataSync() override;  // fdatasync(2)
    void Close() override;

  private:
    static constexpr uint64_t kNoOffset = UINT64_MAX;

    [[noreturn]] void ThrowErrno(const char* operation, uint64_t offset) const;

    std::string fileName_;
    int fd_ = -1;
};

}  // namespace Moreld::File
