#include "Host/Hls/PlaylistHandler.h"

#include <string>
#include <utility>

#include "Host/Hls/HlsRequest.h"
#include "Host/Hls/PlaylistWriter.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::hls {

namespace {

constexpr int64_t kDayNs = 24LL * 3600 * 1'000'000'000;

host::HttpResponse Playlist(std::string text, const char* cacheControl) {
    host::HttpResponse response =
        host::HttpResponse::Text(std::move(text), "application/vnd.apple.mpegurl");
    response.headers.emplace_back("Cache-Control", cacheControl);
    return response;
}

}  // namespace

host::HttpResponse PlaylistHandler::Vod(const host::HttpRequest& request) {
    const long trackId = HlsRequest::TrackId(request);
    const int64_t now = Moreld::Time::TimePoint::Now().ToNanoseconds();
    const int64_t to = HlsRequest::Time(request, "to", now);
    const int64_t from = HlsRequest::Time(request, "from", to - kDayNs);
    // A range that reaches into the future can still grow: not for keeps.
    return Playlist(PlaylistWriter::Vod(chunks_.Range(trackId, from, to)),
                    to > now ? "no-cache" : "public, max-age=60");
}

host::HttpResponse PlaylistHandler::Live(const host::HttpRequest& request) {
    const long trackId = HlsRequest::TrackId(request);
    return Playlist(live_.Write(trackId, chunks_.Newest(trackId)), "no-cache");
}

}  // namespace loopstore::hls
