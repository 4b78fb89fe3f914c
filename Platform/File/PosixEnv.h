#pragma once

#include "Platform/File/Env.h"

namespace Moreld::File {

// The Env of a running store: straight system calls. Stateless, so one
// instance serves every thread.
class PosixEnv final : public Env {
  public:
    std::unique_ptr<File> OpenFile(const std::string& name, int flags,
                                   const char* failureText) override;
    std::error_code Rename(const std::string& from, const std::string& to) override;
    std::error_code CreateDirectory(const std::string& path) override;
    std::error_code RemoveFile(const std::string& path) override;
    std::error_code RemoveTree(const std::string& path) override;
    std::error_code SyncDirectory(const std::string& path) override;
    std::unique_ptr<FileLock> LockFile(const std::string& path, long& holder,
                                       std::error_code& error) override;
};

}  // namespace Moreld::File
