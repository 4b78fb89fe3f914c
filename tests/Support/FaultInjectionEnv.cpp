#include "tests/Support/FaultInjectionEnv.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace loopstore::test {

namespace {

using Moreld::File::Env;

[[noreturn]] void Throw(const std::string& what, const std::string& name, std::error_code error) {
    throw std::runtime_error(what + " " + name + ": " + error.message());
}

}  // namespace

// A chunk file whose writes and syncs go through the journal first.
class FaultInjectionFile final : public Moreld::File::File {
  public:
    FaultInjectionFile(FaultInjectionEnv& env, std::unique_ptr<Moreld::File::File> inner)
        : env_(env), inner_(std::move(inner)) {}

    const std::string& GetFileName() const override { return inner_->GetFileName(); }
    uint64_t Size() const override { return inner_->Size(); }
    size_t ReadAt(void* buffer, size_t size, uint64_t offset) const override {
        BeginRead(offset);
        return inner_->ReadAt(buffer, size, offset);
    }
    size_t ReadAtV(struct iovec* iov, int count, uint64_t offset) const override {
        BeginRead(offset);
        return inner_->ReadAtV(iov, count, offset);
    }
    void WriteAt(const void* buffer, size_t size, uint64_t offset) override {
        std::lock_guard<std::mutex> lock(env_.mutex_);
        BeginWrite(offset, size);
        inner_->WriteAt(buffer, size, offset);
    }
    void WriteAtV(struct iovec* iov, int count, uint64_t offset) override {
        size_t size = 0;
        for (int i = 0; i < count; ++i)
            size += iov[i].iov_len;
        std::lock_guard<std::mutex> lock(env_.mutex_);
        BeginWrite(offset, size);
        inner_->WriteAtV(iov, count, offset);
    }
    void DataSync() override {
        {
            std::lock_guard<std::mutex> lock(env_.mutex_);
            if (std::error_code error = env_.Begin(FaultInjectionEnv::Op::kSync))
                Throw("Cannot fdatasync chunk file", GetFileName(), error);
        }
        inner_->DataSync();
        std::lock_guard<std::mutex> lock(env_.mutex_);
        env_.journal_.Append({UndoRecord::Kind::kSync, GetFileName(), "", 0, 0, ""});
    }
    void Close() override { inner_->Close(); }

  private:
    // Fails as the POSIX file does.
    void BeginRead(uint64_t offset) const {
        std::lock_guard<std::mutex> lock(env_.mutex_);
        if (std::error_code error = env_.BeginRead())
            Throw("Cannot read chunk file", GetFileName() + " at offset " + std::to_string(offset),
                  error);
    }
    void BeginWrite(uint64_t offset, size_t size) {
        if (std::error_code error = env_.Begin(FaultInjectionEnv::Op::kWrite))
            Throw("Cannot write chunk file", GetFileName() + " at offset " + std::to_string(offset),
                  error);
        env_.journal_.AppendWrite(GetFileName(), offset, size);
    }

    FaultInjectionEnv& env_;
    std::unique_ptr<Moreld::File::File> inner_;
};

FaultInjectionEnv::FaultInjectionEnv(const std::string& journal, const std::string& trash)
    : journal_(journal), trash_(trash) {
    std::filesystem::create_directories(trash_);
}

FaultInjectionEnv::~FaultInjectionEnv() = default;

void FaultInjectionEnv::FailAt(Op op, uint64_t nth, int error, bool sticky) {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_[op] = Fault{calls_[op] + nth, error, sticky};
}

void FaultInjectionEnv::ClearFaults() {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.clear();
}

void FaultInjectionEnv::KillAt(uint64_t nth) {
    std::lock_guard<std::mutex> lock(mutex_);
    killAt_ = nth == 0 ? 0 : effects_ + nth;
}

uint64_t FaultInjectionEnv::Effects() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return effects_;
}

uint64_t FaultInjectionEnv::Calls(Op op) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = calls_.find(op);
    return it == calls_.end() ? 0 : it->second;
}

std::error_code FaultInjectionEnv::Begin(Op op) {
    if (++effects_ == killAt_)
        ::kill(::getpid(), SIGKILL);
    return FaultOf(op, ++calls_[op]);
}

std::error_code FaultInjectionEnv::BeginRead() {
    return FaultOf(Op::kRead, ++calls_[Op::kRead]);
}

std::error_code FaultInjectionEnv::FaultOf(Op op, uint64_t call) const {
    const auto found = faults_.find(op);
    if (found == faults_.end() || found->second.nth == 0)
        return {};
    const Fault& fault = found->second;
    if (call == fault.nth || (fault.sticky && call > fault.nth))
        return std::error_code(fault.error, std::generic_category());
    return {};
}

std::unique_ptr<Moreld::File::File> FaultInjectionEnv::OpenFile(const std::string& name, int flags,
                                                                const char* failureText) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (std::error_code error = Begin(Op::kOpen))
            Throw(failureText, name, error);
    }
    return std::make_unique<FaultInjectionFile>(*this,
                                                Env::Posix().OpenFile(name, flags, failureText));
}

// Namespace effects are journalled once they succeeded: a failed rename
// must not be "undone" over a file it never touched.
std::error_code FaultInjectionEnv::Rename(const std::string& from, const std::string& to) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kRename);
    if (!error)
        error = Env::Posix().Rename(from, to);
    if (!error)
        journal_.Append({UndoRecord::Kind::kRename, from, to, 0, 0, ""});
    return error;
}

std::error_code FaultInjectionEnv::CreateDirectory(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kCreateDirectory);
    if (!error)
        error = Env::Posix().CreateDirectory(path);
    if (!error)
        journal_.Append({UndoRecord::Kind::kMakeDirectory, path, "", 0, 0, ""});
    return error;
}

std::error_code FaultInjectionEnv::RemoveFile(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kRemove);
    return error ? error : MoveToTrash(path, false);
}

std::error_code FaultInjectionEnv::RemoveTree(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kRemove);
    return error ? error : MoveToTrash(path, true);
}

std::error_code FaultInjectionEnv::MoveToTrash(const std::string& path, bool tree) {
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path, error)))
        return tree ? std::error_code()
                    : std::make_error_code(std::errc::no_such_file_or_directory);
    const std::string target = trash_ + "/" + std::to_string(++trashed_);
    error = Env::Posix().Rename(path, target);
    if (!error)
        journal_.Append({UndoRecord::Kind::kRemove, path, target, 0, 0, ""});
    return error;
}

std::error_code FaultInjectionEnv::SyncDirectory(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kSync);
    if (!error)
        error = Env::Posix().SyncDirectory(path);
    if (!error)
        journal_.Append({UndoRecord::Kind::kSyncDirectory, path, "", 0, 0, ""});
    return error;
}

std::unique_ptr<Moreld::File::FileLock> FaultInjectionEnv::LockFile(const std::string& path,
                                                                    long& holder,
                                                                    std::error_code& error) {
    return Env::Posix().LockFile(path, holder, error);
}

std::error_code FaultInjectionEnv::NotifyWriteBefore(const std::string& path, uint64_t offset,
                                                     uint64_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kWrite);
    if (!error)
        journal_.AppendWrite(path, offset, size);
    return error;
}

std::error_code FaultInjectionEnv::NotifyTruncateBefore(const std::string& path, uint64_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::error_code error = Begin(Op::kWrite);
    if (!error)
        journal_.AppendTruncate(path, size);
    return error;
}

std::error_code FaultInjectionEnv::NotifySyncBefore(const std::string&) {
    std::lock_guard<std::mutex> lock(mutex_);
    return Begin(Op::kSync);
}

void FaultInjectionEnv::NotifySyncAfter(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    journal_.Append({UndoRecord::Kind::kSync, path, "", 0, 0, ""});
}

void FaultInjectionEnv::NotifyCreated(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    journal_.Append({UndoRecord::Kind::kCreate, path, "", 0, 0, ""});
}

}  // namespace loopstore::test
