#include "Host/Http/HttpRoutes.h"

#include "Host/Http/ProtectionApi.h"
#include "Host/Http/TrackApi.h"

namespace loopstore::host {
namespace {

void AddApiRoutes(HttpRouter& router, MoreldStorageApi::Service& storage) {
    const TrackApi tracks(storage);
    const ProtectionApi protections(*storage.trackStorage);
    router.Add("GET", "/api/tracks", [tracks](const HttpRequest& r) { return tracks.Tracks(r); });
    router.Add("GET", "/api/timeline",
               [tracks](const HttpRequest& r) { return tracks.Timeline(r); });
    router.Add("GET", "/api/tracks/{}/timeline",
               [tracks](const HttpRequest& r) { return tracks.TrackTimeline(r); });
    router.Add("POST", "/api/tracks/{}/protections",
               [protections](const HttpRequest& r) { return protections.Create(r); });
    router.Add("DELETE", "/api/protections/{}",
               [protections](const HttpRequest& r) { return protections.Remove(r); });
}

void AddMonitoringRoutes(HttpRouter& router, const HttpRouteSources& sources) {
    router.Add("GET", "/healthz", [open = sources.storageOpen](const HttpRequest&) {
        if (!open())
            throw HttpError(503, "the storage is closing");
        return HttpResponse::Text("ok\n");
    });
    router.Add("GET", "/metrics", sources.metrics);
}

}  // namespace

HttpRouter BuildHttpRouter(const HttpRouteSources& sources) {
    HttpRouter router;
    AddApiRoutes(router, sources.storage);
    AddMonitoringRoutes(router, sources);
    return router;
}

}  // namespace loopstore::host
