#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "Host/Http/HttpMessage.h"
#include "Platform/Protocol/Protocol.pb.h"

namespace loopstore::host {

// Time values of the JSON API: integer milliseconds since the Unix epoch
// (UTC) or ISO 8601 text in, integer milliseconds out, null for the storage's
// missing time point (-1 ns). Stateless.
class ApiTime {
  public:
    ApiTime() = delete;

    // Milliseconds or ISO 8601 text ("2026-11-22T17:30:00Z") as nanoseconds.
    // Throws HttpError 400 naming `name` when `text` is neither or lies
    // outside the 64-bit nanosecond range.
    static int64_t ParseNs(const std::string& text, const std::string& name);

    // The query parameter `name` as nanoseconds, or `fallback` when absent.
    static int64_t QueryNs(const HttpRequest& request, const std::string& name, int64_t fallback);

    // A JSON number (milliseconds) or string (either form) as nanoseconds.
    static int64_t JsonNs(const nlohmann::json& value, const std::string& name);

    // Milliseconds, rounded down (`roundUp`: up, for the ends of ranges so
    // that they are not shortened); null for -1 ns.
    static nlohmann::json Ms(int64_t ns, bool roundUp = false);
    static nlohmann::json Ms(const Protocol::TimePoint& time, bool roundUp = false) {
        return Ms(time.nanoseconds(), roundUp);
    }

    static int64_t NowMs();

    static Protocol::TimePoint Proto(int64_t ns) {
        Protocol::TimePoint time;
        time.set_nanoseconds(ns);
        return time;
    }
};

}  // namespace loopstore::host
