#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "Host/Cli/StorageClient.h"

namespace loopstore::cli {

// The options of every command that talks to a running server: where it
// listens, the token file, and whether to answer in JSON. One instance per
// subcommand, filled in by CLI11 while parsing.
struct ClientOptions {
    std::string server = "127.0.0.1:7420";
    std::string tokenFile;
    bool json = false;

    // Adds --server, --token-file and --json to `command`.
    void AddTo(CLI::App& command);
    std::unique_ptr<StorageClient> Connect() const;
};

// What a server command's callback needs: the client options and its own
// arguments, shared between CLI11's option bindings and the callback.
template <typename Args>
struct ClientCommand {
    ClientOptions client;
    Args extra;
};

}  // namespace loopstore::cli
