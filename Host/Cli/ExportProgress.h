#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>

namespace loopstore::cli {

// A one-line progress report of an export, redrawn on a terminal ("\r"):
// how much of the range is done. Silent when disabled (stderr is not a
// terminal, or the answer is JSON). Not thread-safe.
class ExportProgress {
  public:
    // Covers [from, to) in nanoseconds.
    ExportProgress(std::ostream& out, bool enabled, int64_t from, int64_t to);

    // The export has reached `time` (ns); redrawn at most ten times a second.
    void Update(int64_t time);
    // Clears the line.
    void Done();

  private:
    std::ostream& out_;
    const bool enabled_;
    const int64_t from_;
    const int64_t to_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point last_{};
};

}  // namespace loopstore::cli
