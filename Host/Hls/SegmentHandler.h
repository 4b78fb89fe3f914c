#pragma once

#include "Host/Http/HttpMessage.h"
#include "Platform/Services/Service.h"

namespace loopstore::hls {

// Answers GET /api/tracks/{id}/segments/{time point ns}.ts: the chunk that
// starts at that time point as an MPEG-TS segment. A chunk that is a
// transport stream is sent byte for byte; another container is remuxed
// (media::SegmentRemuxer). A segment never changes once stored, so it may be
// cached for good. 404 when no chunk starts there.
//
// Each request reads through a reader of its own. Refers to the service,
// which must outlive it; thread-safe.
class SegmentHandler {
  public:
    explicit SegmentHandler(MoreldStorageApi::Service& service) : service_(service) {}

    host::HttpResponse operator()(const host::HttpRequest& request) const;

  private:
    MoreldStorageApi::Service& service_;
};

}  // namespace loopstore::hls
