#pragma once

#include "Host/Http/HttpMessage.h"
#include "Platform/Services/Service.h"

namespace loopstore::hls {

// Answers GET /api/tracks/{id}/export.mp4?from=&to= (both required): an
// MP4 download of the range, starting at the key frame at or before `from`,
// the holes of the recording closed up (media::ClipCutter). The chunks are
// read in-process through a reader of the request's own; the clip is
// written to a temporary file (an MP4 index needs seeking), its index moved
// to the front so that players can start before the end arrives, then
// streamed and gone.
//
// Refers to the service, which must outlive it; thread-safe.
class ExportHandler {
  public:
    // The longest range one download may hold.
    static constexpr int64_t kMaxRangeNs = 24LL * 3600 * 1'000'000'000;

    explicit ExportHandler(MoreldStorageApi::Service& service) : service_(service) {}

    host::HttpResponse operator()(const host::HttpRequest& request) const;

  private:
    MoreldStorageApi::Service& service_;
};

}  // namespace loopstore::hls
