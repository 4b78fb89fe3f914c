#pragma once

#include "Host/Http/HttpRouter.h"
#include "Platform/Services/Service.h"

namespace loopstore::host {

// Adds the playback routes of the tracks to `router`: HLS playlists (range
// and live), their MPEG-TS segments and MP4 downloads of a range. The handlers refer to `service`,
// which must outlive the router; they may run on many threads at once.
void AddHlsRoutes(HttpRouter& router, MoreldStorageApi::Service& service);

}  // namespace loopstore::host
