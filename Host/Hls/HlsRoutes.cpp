#include "Host/Hls/HlsRoutes.h"

#include <memory>

#include "Host/Hls/ExportHandler.h"
#include "Host/Hls/PlaylistHandler.h"
#include "Host/Hls/SegmentHandler.h"
#include "Host/Media/MediaLog.h"

namespace loopstore::host {

void AddHlsRoutes(HttpRouter& router, MoreldStorageApi::Service& service) {
    // A damaged packet at a gap is handled, not news for the server's log.
    media::MediaLog::Quiet();
    auto playlists = std::make_shared<hls::PlaylistHandler>(service);
    router.Add("GET", "/api/tracks/{}/vod.m3u8",
               [playlists](const HttpRequest& request) { return playlists->Vod(request); });
    router.Add("GET", "/api/tracks/{}/live.m3u8",
               [playlists](const HttpRequest& request) { return playlists->Live(request); });
    router.Add("GET", "/api/tracks/{}/segments/{}", hls::SegmentHandler(service));
    router.Add("GET", "/api/tracks/{}/export.mp4", hls::ExportHandler(service));
}

}  // namespace loopstore::host
