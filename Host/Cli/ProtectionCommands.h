#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore protect | unprotect | protections": ranges of a track that loop
// recording must not recycle.
class ProtectionCommands {
  public:
    ProtectionCommands() = delete;

    static void Register(CLI::App& app);

  private:
    static void AddProtect(CLI::App& app);
    static void AddUnprotect(CLI::App& app);
    static void AddList(CLI::App& app);
};

}  // namespace loopstore::cli
