#pragma once

#include <signal.h>

#include <string>

namespace loopstore::cli {

// An output file written under a temporary name in the directory of its
// final name (".<name>.<pid>.part") and renamed into place once complete, so
// that a reader never sees half a file. The temporary file is removed when
// the object is destroyed uncommitted (an error), and when the process gets
// SIGINT or SIGTERM meanwhile: the process then exits with 128 + the signal.
//
// One instance at a time per process (it owns the two signals' handlers
// while it lives). Not thread-safe.
class TemporaryOutput {
  public:
    explicit TemporaryOutput(const std::string& path);
    ~TemporaryOutput();
    TemporaryOutput(const TemporaryOutput&) = delete;
    TemporaryOutput& operator=(const TemporaryOutput&) = delete;

    const std::string& Path() const { return temporary_; }
    // Renames the temporary file to the final name. Throws CliError when the
    // rename fails (the temporary file is then removed).
    void Commit();

  private:
    static void OnSignal(int signal);

    const std::string final_;
    const std::string temporary_;
    bool committed_ = false;
    struct sigaction oldInt_ = {};
    struct sigaction oldTerm_ = {};
};

}  // namespace loopstore::cli
