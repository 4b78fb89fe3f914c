#pragma once

#include <string>

namespace Moreld::File {

// An exclusive lock on a file (flock), held from construction by an Env
// until destruction. The lock dies with the process, so a crash never leaves
// a store locked.
//
// Not thread-safe; owned by whoever took it.
class FileLock {
  public:
    // Takes ownership of `fd`, which holds the lock on `path`.
    FileLock(int fd, std::string path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    const std::string& GetPath() const { return path_; }

  private:
    int fd_;
    std::string path_;
};

}  // namespace Moreld::File
