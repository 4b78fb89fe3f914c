#include "Host/Hls/HlsRoutes.h"

#include <memory>

#include "Host/Hls/PlaylistHandler.h"
#include "Host/Hls/SegmentHandler.h"

namespace loopstore::host {

void AddHlsRoutes(HttpRouter& router, MoreldStorageApi::Service& service) {
    auto playlists = std::make_shared<hls::PlaylistHandler>(service);
    router.Add("GET", "/api/tracks/{}/vod.m3u8",
               [playlists](const HttpRequest& request) { return playlists->Vod(request); });
    router.Add("GET", "/api/tracks/{}/live.m3u8",
               [playlists](const HttpRequest& request) { return playlists->Live(request); });
    router.Add("GET", "/api/tracks/{}/segments/{}", hls::SegmentHandler(service));
}

}  // namespace loopstore::host
