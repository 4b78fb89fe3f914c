#include "Host/Http/TrackApi.h"

#include <algorithm>
#include <charconv>

#include "Host/Http/ApiTime.h"

namespace loopstore::host {
namespace {

constexpr int64_t kDayNs = 24LL * 3600 * 1'000'000'000;
constexpr int64_t kDefaultGapNs = 1'000'000'000;

std::vector<int64_t> AllTracks(MoreldStorageApi::ITrackStorage& tracks) {
    Protocol::TrackList list;
    tracks.ListTracks(list);
    return {list.ids().begin(), list.ids().end()};
}

// An empty track's beginning and end are no time; its oldest chunk says so.
nlohmann::json BeginningMs(const Protocol::TrackInfo& info) {
    return info.oldest().nanoseconds() == -1 ? nullptr : ApiTime::Ms(info.beginning());
}

nlohmann::json EndMs(const Protocol::TrackInfo& info) {
    return info.oldest().nanoseconds() == -1 ? nullptr : ApiTime::Ms(info.end(), true);
}

MoreldStorageApi::ITrackTimeline& TimelineService(MoreldStorageApi::Service& storage) {
    if (!storage.trackTimeline)
        throw HttpError(503, "this storage cannot answer timelines from its index");
    return *storage.trackTimeline;
}

}  // namespace

std::string JsonText(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool TrackApi::ParseId(const std::string& text, int64_t& id) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

int64_t TrackApi::KnownTrack(MoreldStorageApi::ITrackStorage& tracks, const std::string& text) {
    int64_t id = 0;
    if (!ParseId(text, id))
        throw HttpError(400, "track id \"" + text + "\" is not an integer");
    const std::vector<int64_t> all = AllTracks(tracks);
    if (std::find(all.begin(), all.end(), id) == all.end())
        throw HttpError(404, "no track " + std::to_string(id));
    return id;
}

HttpResponse TrackApi::Tracks(const HttpRequest&) const {
    Protocol::Ids ids;
    for (int64_t id : AllTracks(*storage_.trackStorage))
        ids.add_ids(id);
    Protocol::TrackInfos infos;
    storage_.trackStorage->GetTrackInfos(ids, infos);
    nlohmann::json tracks = nlohmann::json::array();
    for (const Protocol::TrackInfo& info : infos.infos())
        tracks.push_back(TrackJson(info));
    return HttpResponse::Json(JsonText({{"now_ms", ApiTime::NowMs()}, {"tracks", tracks}}));
}

nlohmann::json TrackApi::TrackJson(const Protocol::TrackInfo& info) const {
    Protocol::PropertyList properties;
    storage_.trackStorage->GetTrackProperties(info.id(), properties);
    nlohmann::json props = nlohmann::json::object();
    for (const Protocol::Property& p : properties.properties())
        props[p.key()] = p.value();
    return {{"id", info.id()},
            {"track_size", info.track_size()},
            {"current_size", info.current_size()},
            {"max_age_ms", ApiTime::Ms(info.max_age())},
            {"beginning_ms", BeginningMs(info)},
            {"end_ms", EndMs(info)},
            {"oldest_ms", ApiTime::Ms(info.oldest())},
            {"properties", props}};
}

TrackApi::Window TrackApi::ParseWindow(const HttpRequest& request) {
    const int64_t now = ApiTime::NowMs() * 1'000'000;
    Window window{};
    window.toNs = ApiTime::QueryNs(request, "to", now);
    window.fromNs = ApiTime::QueryNs(request, "from", window.toNs - kDayNs);
    if (window.toNs <= window.fromNs)
        throw HttpError(400, "to must come after from");
    const std::string gap = request.Query("gap");
    int64_t gapMs = kDefaultGapNs / 1'000'000;
    if (!gap.empty() && (!ParseId(gap, gapMs) || gapMs < 0 || gapMs > kDayNs / 1'000'000))
        throw HttpError(400, "gap \"" + gap + "\" is not a number of milliseconds from 0 to a day");
    window.gapNs = gapMs * 1'000'000;
    return window;
}

std::vector<int64_t> TrackApi::ParseTrackList(const HttpRequest& request) const {
    const auto it = request.query.find("tracks");
    if (it == request.query.end())
        return AllTracks(*storage_.trackStorage);
    std::vector<std::string> texts;
    std::string::size_type begin = 0;
    const std::string& text = it->second;
    while (begin <= text.size()) {
        const auto comma = std::min(text.find(',', begin), text.size());
        texts.push_back(text.substr(begin, comma - begin));
        int64_t id = 0;
        if (!ParseId(texts.back(), id))
            throw HttpError(400, "track id \"" + texts.back() + "\" in tracks is not an integer");
        begin = comma + 1;
    }
    std::vector<int64_t> ids;
    for (const std::string& id : texts)
        ids.push_back(KnownTrack(*storage_.trackStorage, id));
    return ids;
}

HttpResponse TrackApi::Timeline(const HttpRequest& request) const {
    const Window window = ParseWindow(request);
    return TimelineOf(ParseTrackList(request), window);
}

HttpResponse TrackApi::TrackTimeline(const HttpRequest& request) const {
    const Window window = ParseWindow(request);
    return TimelineOf({KnownTrack(*storage_.trackStorage, request.params.at(0))}, window);
}

HttpResponse TrackApi::TimelineOf(const std::vector<int64_t>& trackIds,
                                  const Window& window) const {
    TimelineService(storage_);
    Protocol::ProtectionInfos protections;
    storage_.trackStorage->ListProtections(protections);
    Protocol::Ids ids;
    for (int64_t id : trackIds)
        ids.add_ids(id);
    Protocol::TrackInfos infos;
    storage_.trackStorage->GetTrackInfos(ids, infos);
    nlohmann::json tracks = nlohmann::json::array();
    for (const Protocol::TrackInfo& info : infos.infos()) {
        tracks.push_back({{"id", info.id()},
                          {"ranges", RangesOf(info.id(), window)},
                          {"protections", ProtectionsOf(info.id(), window, protections)},
                          {"newest_ms", EndMs(info)}});
    }
    return HttpResponse::Json(JsonText({{"from_ms", ApiTime::Ms(window.fromNs)},
                                        {"to_ms", ApiTime::Ms(window.toNs, true)},
                                        {"now_ms", ApiTime::NowMs()},
                                        {"tracks", tracks}}));
}

nlohmann::json TrackApi::RangesOf(int64_t trackId, const Window& window) const {
    Protocol::TimeRanges ranges;
    TimelineService(storage_).GetRecordedRanges(trackId, ApiTime::Proto(window.fromNs),
                                                ApiTime::Proto(window.toNs),
                                                ApiTime::Proto(window.gapNs), ranges);
    nlohmann::json out = nlohmann::json::array();
    for (const Protocol::TimeRange& range : ranges.ranges())
        out.push_back({ApiTime::Ms(range.start()), ApiTime::Ms(range.end(), true)});
    return out;
}

nlohmann::json TrackApi::ProtectionsOf(int64_t trackId, const Window& window,
                                       const Protocol::ProtectionInfos& all) {
    nlohmann::json out = nlohmann::json::array();
    for (const Protocol::ProtectionInfo& p : all.infos()) {
        if (p.track_id() != trackId || p.end().nanoseconds() <= window.fromNs ||
            p.start().nanoseconds() >= window.toNs)
            continue;
        out.push_back(
            {{"id", p.protection_id()},
             {"start_ms", ApiTime::Ms(p.start())},
             {"end_ms", ApiTime::Ms(p.end(), true)},
             {"label", p.label()},
             {"expires_ms", p.has_expires() ? ApiTime::Ms(p.expires()) : nlohmann::json(nullptr)}});
    }
    return out;
}

}  // namespace loopstore::host
