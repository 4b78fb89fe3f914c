#pragma once

#include <functional>

#include "Host/Http/HttpRouter.h"
#include "Platform/Services/Service.h"

namespace loopstore::host {

// What the routes of the server answer from.
struct HttpRouteSources {
    // Must outlive the router.
    MoreldStorageApi::Service& storage;
    // Answers GET /metrics.
    HttpHandler metrics;
    // True while the storage is open (and not stopping).
    std::function<bool()> storageOpen;
};

// The one place where the server's routes are put together: the JSON API,
// /healthz, /metrics, and the routes of the other parts of the server.
HttpRouter BuildHttpRouter(const HttpRouteSources& sources);

}  // namespace loopstore::host
