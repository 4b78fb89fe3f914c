#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Platform/File/Env.h"
#include "tests/Support/UndoJournal.h"

namespace loopstore::test {

// An Env for tests that can fail chosen calls, kill the process at a chosen
// effect, and lose what a power cut would lose.
//
// Every effect on the file system (a write, truncation or sync of a chunk
// file or database file, a creation, rename, removal or directory sync) is
// first described in an UndoJournal: the bytes a write overwrites, the place
// a removed file is kept until its directory is synced, and so on. The
// journal is written with plain system calls, so it survives the process
// being killed; SimulatePowerCut then undoes, in the file system, every
// effect that was not made durable by a later sync (see UndoJournal).
// A kill alone leaves the file system as the kernel has it, as a crash of
// the process does.
//
// Removed files and trees are renamed into `trash` instead, which must lie
// on the same file system as the store.
//
// Thread-safe: one mutex orders the journal and the effects.
class FaultInjectionEnv final : public Moreld::File::Env {
  public:
    // kRead counts reads of chunk files; reads are not effects (KillAt and
    // Effects ignore them).
    enum class Op { kWrite, kSync, kRename, kOpen, kCreateDirectory, kRemove, kRead };

    FaultInjectionEnv(const std::string& journal, const std::string& trash);
    ~FaultInjectionEnv() override;

    // The `nth` call of `op` from now on (1 is the next one) fails with
    // `error` (errno), without effect; with `sticky` every later one too (a
    // full disk).
    void FailAt(Op op, uint64_t nth, int error, bool sticky = false);
    void ClearFaults();
    // SIGKILLs the process just before its `nth` effect from now on (any
    // kind); 0 withdraws it.
    void KillAt(uint64_t nth);
    // Effects made so far.
    uint64_t Effects() const;
    // Calls of `op` made so far, failed ones included.
    uint64_t Calls(Op op) const;

    std::unique_ptr<Moreld::File::File> OpenFile(const std::string& name, int flags,
                                                 const char* failureText) override;
    std::error_code Rename(const std::string& from, const std::string& to) override;
    std::error_code CreateDirectory(const std::string& path) override;
    std::error_code RemoveFile(const std::string& path) override;
    std::error_code RemoveTree(const std::string& path) override;
    std::error_code SyncDirectory(const std::string& path) override;
    std::unique_ptr<Moreld::File::FileLock> LockFile(const std::string& path, long& holder,
                                                     std::error_code& error) override;

    std::error_code NotifyWriteBefore(const std::string& path, uint64_t offset,
                                      uint64_t size) override;
    std::error_code NotifyTruncateBefore(const std::string& path, uint64_t size) override;
    std::error_code NotifySyncBefore(const std::string& path) override;
    void NotifySyncAfter(const std::string& path) override;
    void NotifyCreated(const std::string& path) override;

  private:
    struct Fault {
        uint64_t nth = 0;  // 0: none
        int error = 0;
        bool sticky = false;
    };

    // Counts one call of `op` and one effect; the fault it meets, if any.
    // Kills the process when the effect count is reached. mutex_ held.
    std::error_code Begin(Op op);
    // Counts one read; the fault it meets, if any. mutex_ held.
    std::error_code BeginRead();
    // The fault the `call`th call of `op` meets. mutex_ held.
    std::error_code FaultOf(Op op, uint64_t call) const;
    std::error_code MoveToTrash(const std::string& path, bool tree);

    mutable std::mutex mutex_;
    UndoJournal journal_;           // guarded by mutex_
    std::string trash_;             // guarded by mutex_
    uint64_t trashed_ = 0;          // guarded by mutex_
    uint64_t effects_ = 0;          // guarded by mutex_
    uint64_t killAt_ = 0;           // guarded by mutex_
    std::map<Op, uint64_t> calls_;  // guarded by mutex_
    std::map<Op, Fault> faults_;    // guarded by mutex_

    friend class FaultInjectionFile;
};

// Installs an Env for the life of the object, then puts the previous back.
class ScopedEnv {
  public:
    explicit ScopedEnv(Moreld::File::Env* env) : previous_(Moreld::File::Env::Install(env)) {}
    ~ScopedEnv() { Moreld::File::Env::Install(previous_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    Moreld::File::Env* previous_;
};

}  // namespace loopstore::test
