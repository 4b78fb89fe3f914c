#pragma once

#include <string>

// Copies of a store's databases ("<name>.db" with its "-wal") in a private
// temporary directory, so that they can be opened, and even checkpointed by
// SQLite, without a byte of the store changing: opening the originals would
// create or rewrite their "-shm" and may checkpoint the WAL.
//
// Owns the temporary directory and removes it when destroyed. Not
// thread-safe.
class DatabaseSnapshot {
  public:
    // Creates an empty temporary directory. Throws std::runtime_error when
    // it cannot.
    DatabaseSnapshot();
    ~DatabaseSnapshot();
    DatabaseSnapshot(const DatabaseSnapshot&) = delete;
    DatabaseSnapshot& operator=(const DatabaseSnapshot&) = delete;

    // Copies `dbDirectory`/`name` and its "-wal" (when present) into the
    // snapshot. Throws std::runtime_error naming the file when a copy fails.
    void Copy(const std::string& dbDirectory, const std::string& name) const;

    // The directory holding the copies.
    const std::string& Directory() const { return directory_; }

  private:
    std::string directory_;
};
