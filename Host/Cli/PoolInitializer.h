#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace loopstore::cli {

// Creates the free files of a pool directory: `count` preallocated files of
// `fileSize` bytes named by their 8-digit number (00000001, 00000002, ...),
// as the storage expects to find them at its first start.
//
// Refuses a directory that already holds numbered files (the storage links a
// pool once). On failure the files it made are removed again. Not
// thread-safe; one initialisation per directory at a time.
class PoolInitializer {
  public:
    static constexpr int kNameWidth = 8;

    // Called after each file with the number made so far.
    using Progress = std::function<void(uint64_t done, uint64_t count)>;

    PoolInitializer(std::string directory, uint64_t count, uint64_t fileSize);

    // Creates the directory (and parents) and the files. Throws CliError
    // naming the file and the system's reason.
    void Run(const Progress& progress);

  private:
    void CheckEmpty() const;
    std::string FileName(uint64_t number) const;
    void CreateFile(const std::string& path) const;

    const std::string directory_;
    const uint64_t count_;
    const uint64_t fileSize_;
};

}  // namespace loopstore::cli
