#include "Host/Server/HttpFrontend.h"

#include <chrono>
#include <functional>
#include <utility>

#include "Host/Hls/HlsRoutes.h"
#include "Host/Http/HttpRoutes.h"
#include "Host/Web/PageRoutes.h"

namespace loopstore::host {
namespace {

// The API and monitoring routes, then playback, then the page.
HttpRouter BuildRouter(MoreldStorageApi::Service& storage, HttpHandler metricsPage,
                       std::function<bool()> storageOpen) {
    HttpRouter router = BuildHttpRouter({storage, std::move(metricsPage), std::move(storageOpen)});
    AddHlsRoutes(router, storage);
    web::AddPageRoutes(router);
    return router;
}

}  // namespace

HttpFrontend::HttpFrontend(MoreldStorageApi::Service& storage, ServerMetrics& metrics,
                           std::string token, HttpServer::Options options, HttpHandler metricsPage)
    : metrics_(metrics),
      access_(std::move(token)),
      router_(BuildRouter(storage, std::move(metricsPage), [this] { return open_.load(); })),
      server_([this](const HttpRequest& request) { return Serve(request); }, std::move(options)) {}

void HttpFrontend::Start() {
    open_.store(true);
    server_.Start();
}

HttpResponse HttpFrontend::Serve(const HttpRequest& request) const {
    const auto start = std::chrono::steady_clock::now();
    std::optional<HttpResponse> refused = access_.Check(request);
    HttpResponse response = refused ? std::move(*refused) : router_.Route(request);
    metrics_.ObserveHttp(router_.PatternOf(request.method, request.path), response.status,
                         std::chrono::steady_clock::now() - start);
    return response;
}

}  // namespace loopstore::host
