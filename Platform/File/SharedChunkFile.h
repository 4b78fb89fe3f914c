#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/File/File.h"

namespace Moreld::File {

// One chunk file opened read-only, with the generation last read from its
// header, for the DataChunkFileReaders of several threads to share: one
// descriptor and one header read serve every reader of the file.
//
// The generation is only a hint. Readers compare each record's generation
// with it and read the header again when they differ, so a value that a
// slower reader stores late (older than the file's current one) costs a
// header read, never a wrong record.
//
// Owns the descriptor, closed with the last reference. Thread-safe: reads
// are positioned, the generation is atomic.
class SharedChunkFile {
  public:
    // Opens `fileName` read-only through the installed Env. Throws
    // std::runtime_error "Cannot open chunk file <name>: <strerror>".
    explicit SharedChunkFile(const std::string& fileName);
    SharedChunkFile(const SharedChunkFile&) = delete;
    SharedChunkFile& operator=(const SharedChunkFile&) = delete;

    const File& GetFile() const { return *file_; }
    const std::string& GetFileName() const { return file_->GetFileName(); }
    // Size when opened: chunk files are preallocated and keep it.
    uint64_t Size() const { return size_; }

    // The generation of the header read last by any reader; 0 when none has
    // been read (a valid header never carries 0).
    uint64_t KnownGeneration() const { return generation_.load(std::memory_order_acquire); }
    void SetKnownGeneration(uint64_t generation) {
        generation_.store(generation, std::memory_order_release);
    }

  private:
    const std::unique_ptr<File> file_;
    const uint64_t size_;
    std::atomic<uint64_t> generation_{0};
};

}  // namespace Moreld::File
