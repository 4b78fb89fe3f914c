#pragma once

#include <string>

namespace loopstore::test {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on
// destruction. Each test gets its own, so tests may run in parallel.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return path_; }
    // Path() joined with `name`.
    std::string operator/(const std::string& name) const;

  private:
    std::string path_;
};

// Creates `path` as a preallocated file of `size` bytes (zero filled).
void CreatePreallocatedFile(const std::string& path, unsigned long size);

}  // namespace loopstore::test
