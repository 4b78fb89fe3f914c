#include "Host/Cli/ServeCommand.h"

#include <iostream>
#include <memory>
#include <string>

#include "Host/Cli/Output.h"
#include "Host/Cli/SizeParser.h"
#include "Host/Cli/StorageDirectories.h"
#include "Host/Server/ServerMain.h"

namespace loopstore::cli {

void ServeCommand::Register(CLI::App& app, int& exitCode) {
    struct Args {
        StorageDirectories directories;
        host::ServerOptions options;
        uint64_t poolFiles = DataLayout::kDefaultPoolFiles;
        std::string poolFileSize = "16M";
        std::string cacheMemory = "256M";
    };
    auto a = std::make_shared<Args>();
    CLI::App* cmd = app.add_subcommand("serve", "Run the loopstore server (until SIGTERM/SIGINT)");
    a->directories.AddTo(*cmd);
    cmd->add_option("--listen", a->options.listenAddress, "Address to listen on (host:port)")
        ->capture_default_str();
    cmd->add_option("--http", a->options.httpAddress,
                    "Also serve HTTP (JSON API, /metrics, /healthz, the page) on host:port, "
                    "e.g. 127.0.0.1:7421; port 0 picks a free one");
    cmd->add_flag("--allow-remote", a->options.allowRemote,
                  "Allow listening beyond loopback, gRPC or HTTP (then --token-file is required)");
    cmd->add_option("--token-file", a->options.tokenFile,
                    "File holding the token every client must send");
    cmd->add_option("--log-config", a->options.logConfig, "log4cplus properties file");
    cmd->add_option("--pool-files", a->poolFiles,
                    "With --data: number of pool files made on first use")
        ->capture_default_str();
    cmd->add_option("--pool-file-size", a->poolFileSize,
                    "With --data: size of each pool file made on first use")
        ->capture_default_str();
    cmd->add_option("--cache-memory", a->cacheMemory,
                    "Memory the chunks cached by all writers share (e.g. 256M); written "
                    "chunks are dropped beyond it. 0: each writer's cache keeps its own "
                    "50000000-byte bound")
        ->capture_default_str();
    cmd->callback([a, &exitCode] {
        const DataLayout layout = a->directories.Resolve();
        if (a->directories.UsesDataDirectory() &&
            layout.Prepare(a->poolFiles, SizeParser::ParseSize(a->poolFileSize)))
            std::cerr << "created a pool of " << a->poolFiles << " files in " << layout.pool
                      << '\n';
        host::ServerOptions options = a->options;
        options.tracksDir = layout.tracks;
        options.dbDir = layout.db;
        options.poolDir = layout.pool;
        options.cacheMemoryBytes = SizeParser::ParseSize(a->cacheMemory);
        exitCode = host::RunServer(options);
    });
}

}  // namespace loopstore::cli
