#pragma once

#include <string>

namespace loopstore::host {

// What the loopstore server is started with; the command line fills it in.
struct ServerOptions {
    // The three storage directories: track files, track databases, file pool.
    std::string tracksDir;
    std::string dbDir;
    std::string poolDir;
    // "host:port"; port 0 picks a free port.
    std::string listenAddress = "127.0.0.1:7420";
    // "host:port" of the HTTP server (JSON API, metrics, page); empty: no
    // HTTP. Port 0 picks a free port. Same loopback rule and token as gRPC.
    std::string httpAddress;
    // A file holding the bearer token every call must carry. Required when
    // listening beyond loopback; optional (and then enforced) on loopback.
    std::string tokenFile;
    // A log4cplus properties file; empty: warnings and above to the console.
    std::string logConfig;
    // Must be set to listen on anything but a loopback address.
    bool allowRemote = false;
    // The memory the chunks cached by all writers share; written chunks are
    // dropped beyond it. 0 leaves each track's cache the library's own
    // bound (50000000 bytes per writer).
    unsigned long cacheMemoryBytes = kDefaultCacheMemoryBytes;
    static constexpr unsigned long kDefaultCacheMemoryBytes = 256ul << 20;
    // The bytes a write stream may have in flight towards the server beyond
    // the message being received (a larger message still gets through: the
    // window widens to it). 0 lets gRPC grow each stream's window to what it
    // measures the link can carry, megabytes per stream on loopback.
    int streamWindowBytes = kDefaultStreamWindowBytes;
    static constexpr int kDefaultStreamWindowBytes = 1 << 20;
};

// Configures logging, starts the server and blocks until SIGTERM or SIGINT
// (or RequestStop()), then stops it cleanly: open streams end, writers are
// drained and the storage is closed. Returns 0 after a clean stop, non-zero
// when the server could not start (the reason is logged and printed on
// stderr). Call from one thread at a time.
int RunServer(const ServerOptions& options);

// Makes a running RunServer() stop as if it had received SIGTERM. Safe from
// any thread and from a signal handler; does nothing when no server runs.
void RequestStop();

}  // namespace loopstore::host
