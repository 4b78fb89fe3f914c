#pragma once

#include "Host/Hls/LivePlaylist.h"
#include "Host/Hls/TrackChunks.h"
#include "Host/Http/HttpMessage.h"
#include "Platform/Services/Service.h"

namespace loopstore::hls {

// Answers the playlist routes of a track:
//   GET /api/tracks/{id}/vod.m3u8?from=&to=  the chunks of a range, finished;
//     from and to default to the last 24 hours.
//   GET /api/tracks/{id}/live.m3u8           the newest chunks, reloaded by
//     the player as the track grows.
// Both are written from the index alone (TrackChunks).
//
// Refers to the service, which must outlive it. Thread-safe.
class PlaylistHandler {
  public:
    explicit PlaylistHandler(MoreldStorageApi::Service& service) : chunks_(service) {}

    host::HttpResponse Vod(const host::HttpRequest& request);
    host::HttpResponse Live(const host::HttpRequest& request);

  private:
    TrackChunks chunks_;
    LivePlaylist live_;
};

}  // namespace loopstore::hls
