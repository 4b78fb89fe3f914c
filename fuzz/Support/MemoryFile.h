#pragma once

#include <string>
#include <string_view>

namespace loopstore::fuzz {

// A file that lives in memory (memfd_create) and that each fuzz input
// overwrites, so that inputs read as chunk files never go to the disk. The
// project's file classes open it by path, through /proc/self/fd.
//
// Owns its descriptor. One per process (a static of the target); not
// synchronised.
class MemoryFile {
  public:
    // Throws std::runtime_error when no memory file can be made.
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // Replaces the content by `bytes` (the file takes their size). Throws
    // std::runtime_error on a write error.
    void Write(std::string_view bytes);
    // A path that opens this file, for reading or writing.
    const std::string& Path() const { return path_; }

  private:
    int fd_ = -1;
    std::string path_;
};

}  // namespace loopstore::fuzz
