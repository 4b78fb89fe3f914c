#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

#include "Platform/File/File.h"
#include "Platform/File/FileLock.h"

namespace Moreld::File {

// Every effect the store has on the file system goes through an Env: opening
// chunk files, renaming files between the pool and the tracks, creating and
// removing directories, syncing directories, locking the store. The POSIX
// Env is the default; a test installs another one to fail a chosen call,
// watch what was made durable, or undo what a power cut would lose.
//
// Files written by a library with its own descriptors (SQLite) report their
// effects through the Notify* calls before and after making them, so that an
// Env sees those writes too. The POSIX Env ignores them.
//
// Namespace calls return an empty std::error_code on success and the
// system's error otherwise; they never throw.
//
// Thread-safety: every call may come from any thread. Install is not
// synchronised with the calls: install before building a store and keep the
// Env alive until the store is gone.
class Env {
  public:
    virtual ~Env() = default;

    // The installed Env, or the POSIX one.
    static Env& Get();
    // Makes `env` (not owned) the Env of the process; nullptr brings back the
    // POSIX one. Returns the Env installed before.
    static Env* Install(Env* env);
    static Env& Posix();

    // Opens the existing file `name` with open(2) `flags`. Throws
    // std::runtime_error "<failureText> <name>: <reason>" on failure.
    virtual std::unique_ptr<File> OpenFile(const std::string& name, int flags,
                                           const char* failureText) = 0;

    // rename(2): atomic, replaces `to` when it is a file.
    virtual std::error_code Rename(const std::string& from, const std::string& to) = 0;
    // mkdir(2) of one level; errc::file_exists when something is there.
    virtual std::error_code CreateDirectory(const std::string& path) = 0;
    virtual std::error_code RemoveFile(const std::string& path) = 0;
    // Removes `path` and everything under it; success when it is absent.
    virtual std::error_code RemoveTree(const std::string& path) = 0;
    // fsync(2) of a directory: makes the creations, renames and removals of
    // entries in it durable.
    virtual std::error_code SyncDirectory(const std::string& path) = 0;

    // Takes the exclusive lock of `path` (created when missing) for as long
    // as the returned object lives, writing this process's id into it. When
    // another process holds it, returns null and sets `holder` to the id
    // that process wrote; other failures return null with `error` set.
    virtual std::unique_ptr<FileLock> LockFile(const std::string& path, long& holder,
                                               std::error_code& error) = 0;

    // Reports of a library writing through its own descriptors. A non-empty
    // error from a Notify*Before call means: fail the operation, do nothing.
    virtual std::error_code NotifyWriteBefore(const std::string& /*path*/, uint64_t /*offset*/,
                                              uint64_t /*size*/) {
        return {};
    }
    virtual std::error_code NotifyTruncateBefore(const std::string& /*path*/, uint64_t /*size*/) {
        return {};
    }
    virtual std::error_code NotifySyncBefore(const std::string& /*path*/) { return {}; }
    virtual void NotifySyncAfter(const std::string& /*path*/) {}
    // `path` did not exist and has just been created.
    virtual void NotifyCreated(const std::string& /*path*/) {}
};

// Steps that need the parent directory of an entry to make it durable.
std::string ParentDirectory(const std::string& path);

}  // namespace Moreld::File
