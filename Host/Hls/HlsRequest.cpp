#include "Host/Hls/HlsRequest.h"

#include <charconv>
#include <stdexcept>

#include "Platform/Time/TimePoint.h"

namespace loopstore::hls {

namespace {

constexpr int64_t kNsPerMs = 1'000'000;

// The whole of `text` as a decimal integer, if it is one.
bool ParseInteger(const std::string& text, int64_t& value) {
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    return !text.empty() && error == std::errc() && at == end;
}

}  // namespace

long HlsRequest::TrackId(const host::HttpRequest& request) {
    int64_t id = 0;
    if (request.params.empty() || !ParseInteger(request.params[0], id))
        throw host::HttpError(
            400, "bad track id \"" + (request.params.empty() ? "" : request.params[0]) + "\"");
    return static_cast<long>(id);
}

int64_t HlsRequest::Time(const host::HttpRequest& request, const std::string& name,
                         int64_t fallback) {
    const auto it = request.query.find(name);
    if (it == request.query.end() || it->second.empty())
        return fallback;
    int64_t ms = 0;
    if (ParseInteger(it->second, ms)) {
        if (ms > INT64_MAX / kNsPerMs || ms < INT64_MIN / kNsPerMs)
            throw host::HttpError(400, "time " + name + "=" + it->second + " is out of range");
        return ms * kNsPerMs;
    }
    try {
        return Moreld::Time::TimePoint::FromString(it->second).ToNanoseconds();
    } catch (const std::exception& e) {
        throw host::HttpError(400, "bad time " + name + "=" + it->second +
                                       ": milliseconds since the epoch or ISO 8601 (" + e.what() +
                                       ")");
    }
}

int64_t HlsRequest::SegmentTimePoint(const std::string& name) {
    static const std::string kSuffix = ".ts";
    int64_t ns = 0;
    const bool named = name.size() > kSuffix.size() &&
                       name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0 &&
                       ParseInteger(name.substr(0, name.size() - kSuffix.size()), ns);
    if (!named)
        throw host::HttpError(404, "no such segment: " + name);
    return ns;
}

}  // namespace loopstore::hls
