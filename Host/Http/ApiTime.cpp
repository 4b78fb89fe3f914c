#include "Host/Http/ApiTime.h"

#include <cctype>
#include <charconv>
#include <exception>

#include "Platform/Time/TimePoint.h"

namespace loopstore::host {
namespace {

constexpr int64_t kNsPerMs = 1'000'000;

bool IsInteger(const std::string& text) {
    std::size_t i = text.size() > 1 && text[0] == '-' ? 1 : 0;
    if (i == text.size())
        return false;
    for (; i < text.size(); ++i) {
        if (!std::isdigit(static_cast<unsigned char>(text[i])))
            return false;
    }
    return true;
}

int64_t MsToNs(int64_t ms, const std::string& name) {
    int64_t ns = 0;
    if (__builtin_mul_overflow(ms, kNsPerMs, &ns))
        throw HttpError(400, name + " " + std::to_string(ms) + " ms is out of range");
    return ns;
}

}  // namespace

int64_t ApiTime::ParseNs(const std::string& text, const std::string& name) {
    if (IsInteger(text)) {
        int64_t ms = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), ms);
        if (error != std::errc() || end != text.data() + text.size())
            throw HttpError(400, name + " \"" + text + "\" is out of range");
        return MsToNs(ms, name);
    }
    try {
        return Moreld::Time::TimePoint::FromString(text).ToNanoseconds();
    } catch (const std::exception&) {
        throw HttpError(400, name + " \"" + text +
                                 "\" is neither milliseconds since the epoch nor an ISO 8601 "
                                 "time such as 2026-11-22T17:30:00Z");
    }
}

int64_t ApiTime::QueryNs(const HttpRequest& request, const std::string& name, int64_t fallback) {
    const auto it = request.query.find(name);
    return it == request.query.end() ? fallback : ParseNs(it->second, name);
}

int64_t ApiTime::JsonNs(const nlohmann::json& value, const std::string& name) {
    if (value.is_number_integer())
        return MsToNs(value.get<int64_t>(), name);
    if (value.is_string())
        return ParseNs(value.get<std::string>(), name);
    throw HttpError(400, name + " must be milliseconds since the epoch or ISO 8601 text");
}

nlohmann::json ApiTime::Ms(int64_t ns, bool roundUp) {
    if (ns == -1)
        return nullptr;
    int64_t ms = ns / kNsPerMs;
    const int64_t rest = ns % kNsPerMs;
    if (rest < 0)
        --ms;  // towards minus infinity
    if (roundUp && rest != 0)
        ++ms;
    return ms;
}

int64_t ApiTime::NowMs() {
    return Moreld::Time::TimePoint::Now().ToNanoseconds() / kNsPerMs;
}

}  // namespace loopstore::host
