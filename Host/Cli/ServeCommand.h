#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore serve": runs the server in the foreground until SIGTERM or
// SIGINT. With no directories named it uses the default layout under --data
// and makes a modest pool there on first use.
class ServeCommand {
  public:
    ServeCommand() = delete;

    // `exitCode` receives the server's exit status.
    static void Register(CLI::App& app, int& exitCode);
};

}  // namespace loopstore::cli
