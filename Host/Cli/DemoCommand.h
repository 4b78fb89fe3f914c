#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore demo": runs DemoRunner and prints its summary.
class DemoCommand {
  public:
    DemoCommand() = delete;

    static void Register(CLI::App& app);
};

}  // namespace loopstore::cli
