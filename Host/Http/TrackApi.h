#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <vector>

#include "Host/Http/HttpMessage.h"
#include "Platform/Services/Service.h"

namespace loopstore::host {

// The JSON answers about tracks: the list of tracks with their state, and
// their recorded ranges and protections over a time window (from the
// storage's index; no chunk is read).
//
// Holds a reference to the storage service, which must outlive it. Stateless
// otherwise; its handlers may run on many threads at once.
class TrackApi {
  public:
    explicit TrackApi(MoreldStorageApi::Service& storage) : storage_(storage) {}

    // GET /api/tracks
    HttpResponse Tracks(const HttpRequest& request) const;
    // GET /api/timeline?from=&to=&gap=&tracks=1,2
    HttpResponse Timeline(const HttpRequest& request) const;
    // GET /api/tracks/{id}/timeline?from=&to=&gap=
    HttpResponse TrackTimeline(const HttpRequest& request) const;

    // A decimal integer, or false.
    static bool ParseId(const std::string& text, int64_t& id);

    // The track id written in `text`; throws HttpError 400 when
    // it is no integer, 404 when no such track exists.
    static int64_t KnownTrack(MoreldStorageApi::ITrackStorage& tracks, const std::string& text);

  private:
    struct Window {
        int64_t fromNs;
        int64_t toNs;
        int64_t gapNs;
    };

    static Window ParseWindow(const HttpRequest& request);
    std::vector<int64_t> ParseTrackList(const HttpRequest& request) const;
    nlohmann::json TrackJson(const Protocol::TrackInfo& info) const;
    HttpResponse TimelineOf(const std::vector<int64_t>& trackIds, const Window& window) const;
    nlohmann::json RangesOf(int64_t trackId, const Window& window) const;
    static nlohmann::json ProtectionsOf(int64_t trackId, const Window& window,
                                        const Protocol::ProtectionInfos& all);

    MoreldStorageApi::Service& storage_;
};

// `value` as JSON text; invalid UTF-8 from the storage is replaced, not
// thrown.
std::string JsonText(const nlohmann::json& value);

}  // namespace loopstore::host
