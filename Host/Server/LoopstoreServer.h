#pragma once

#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>

#include <memory>
#include <string>

#include "Host/Server/CallGuard.h"
#include "Host/Server/HttpFrontend.h"
#include "Host/Server/MetricsPage.h"
#include "Host/Server/PeerServiceFactory.h"
#include "Host/Server/ServerMain.h"
#include "Host/Server/ServerMetrics.h"
#include "Host/Server/TrackReaderRpc.h"
#include "Host/Server/TrackRetentionRpc.h"
#include "Host/Server/TrackStorageRpc.h"
#include "Host/Server/TrackWriterRpc.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Services/Service.h"
#include "Platform/Tools/Mutex.h"
#include "Storage/Server/Factories/LoopRecordingFileFactory.h"

namespace loopstore::host {

// The loopstore server: builds the storage from its three directories and
// serves it over gRPC (and HTTP when asked) until stopped. RunServer drives one from the command
// line; tests start one in-process on "127.0.0.1:0".
//
// Owns the storage factory, the services it constructed and the gRPC server.
// Start and Stop may be called from any thread, one at a time (they are
// serialised); the destructor stops a running server.
class LoopstoreServer {
  public:
    explicit LoopstoreServer(ServerOptions options);
    ~LoopstoreServer();

    LoopstoreServer(const LoopstoreServer&) = delete;
    LoopstoreServer& operator=(const LoopstoreServer&) = delete;

    // Reads the token file, checks the listen address against the options,
    // opens the storage (repairing an unclean stop) and starts listening.
    // Throws std::runtime_error naming the cause (address, file, storage);
    // on failure nothing is left open. Precondition: not running.
    void Start();

    // The port the server listens on (the one chosen for port 0); 0 when
    // not running.
    int Port() const { return port_; }

    // The port of the HTTP server (the one chosen for port 0); 0 when not
    // running or without HTTP.
    int HttpPort() const { return http_ ? http_->Port() : 0; }

    // Refuses new calls, cancels the open streams after a short grace (their
    // writers and readers are destroyed, writers drained and their last file
    // saved), then closes the storage. Does nothing when not running.
    void Stop();

  private:
    void OpenStorage();
    void Listen(const std::string& token);
    // Serves HTTP when an address is set.
    void ListenHttp(const std::string& token);
    // Fixes each stream's receive window (streamWindowBytes).
    void BoundReceiveBuffering(grpc::ServerBuilder& builder) const;
    void Release();
    // The shared chunk cache's use, at level 30.
    void LogCacheUsage();

    const ServerOptions options_;
    Moreld::Tools::Mutex mutex_;  // serialises Start and Stop
    int port_ = 0;
    // Destroyed in reverse order: the gRPC server first (no handler runs
    // after it), the storage factory last.
    std::unique_ptr<LoopRecordingFileFactory> factory_;
    std::unique_ptr<MoreldStorageApi::Service> storage_;
    std::unique_ptr<ServerMetrics> metrics_;
    std::unique_ptr<CallGuard> guard_;
    std::unique_ptr<PeerServiceFactory> peers_;
    std::unique_ptr<TrackStorageRpc> trackStorageRpc_;
    std::unique_ptr<TrackWriterRpc> trackWriterRpc_;
    std::unique_ptr<TrackReaderRpc> trackReaderRpc_;
    std::unique_ptr<TrackRetentionRpc> trackRetentionRpc_;
    std::unique_ptr<grpc::Server> server_;
    std::unique_ptr<MetricsPage> metricsPage_;
    std::unique_ptr<HttpFrontend> http_;
    tav::mr::logging::Logger logger_;
};

}  // namespace loopstore::host
