#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Host/Http/HttpAccess.h"
#include "Host/Http/HttpRouter.h"
#include "Host/Http/HttpServer.h"
#include "Host/Server/ServerMetrics.h"
#include "Platform/Services/Service.h"

namespace loopstore::host {

// The server's HTTP side: the routes over the storage, behind the token
// check, served on the --http address, each request timed into the
// server's metrics.
//
// Refers to the storage and the metrics, which must outlive it; owns the
// router and the HTTP server. Start and Stop from one thread at a time.
class HttpFrontend {
  public:
    // `token` empty: no token asked (loopback only, checked by the caller).
    // `metricsPage` answers GET /metrics.
    HttpFrontend(MoreldStorageApi::Service& storage, ServerMetrics& metrics, std::string token,
                 HttpServer::Options options, HttpHandler metricsPage);

    // Throws std::runtime_error naming the address when it cannot listen.
    void Start();
    int Port() const { return server_.Port(); }
    // /healthz answers 503 from now on.
    void MarkClosing() { open_.store(false); }
    // Returns once no request is being answered any more.
    void Stop() { server_.Stop(); }

  private:
    HttpResponse Serve(const HttpRequest& request) const;

    ServerMetrics& metrics_;
    const HttpAccess access_;
    std::atomic<bool> open_{true};
    const HttpRouter router_;
    HttpServer server_;
};

}  // namespace loopstore::host
