#pragma once

#include <cstdint>
#include <string>

#include "Host/Http/HttpMessage.h"

namespace loopstore::hls {

// Reads what the HLS routes take from a request; a malformed value is
// refused with HttpError 400 naming it. Stateless.
class HlsRequest {
  public:
    HlsRequest() = delete;

    // The track id, the route's first parameter.
    static long TrackId(const host::HttpRequest& request);
    // The query time `name` in nanoseconds: integer milliseconds since the
    // epoch or ISO 8601 text; `fallback` when absent.
    static int64_t Time(const host::HttpRequest& request, const std::string& name,
                        int64_t fallback);
    // The time point (ns) named by a segment "<nanoseconds>.ts"; nothing
    // else names a segment (HttpError 404).
    static int64_t SegmentTimePoint(const std::string& name);
};

}  // namespace loopstore::hls
