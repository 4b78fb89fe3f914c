#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <iosfwd>
#include <string>

#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// Prints a command's answer either for people (aligned text) or for scripts
// (one JSON document). Commands build both forms; Output picks one. Also the
// shared formatting of sizes and time points. Not thread-safe.
class Output {
  public:
    Output(bool json, std::ostream& out) : json_(json), out_(out) {}

    bool Json() const { return json_; }
    // Writes `value` (JSON mode) or `text` (people), followed by a newline
    // unless `text` is empty or already ends with one.
    void Print(const nlohmann::json& value, const std::string& text);

    // Reports a failure on `err`: "loopstore: <message>" for people, or one
    // line {"error": message, "exit_code": code} for scripts.
    static void Error(bool json, std::ostream& err, const std::string& message, int code);

    // "16777216 B (16.0 MiB)".
    static std::string Bytes(uint64_t bytes);
    // "0.26 MB/s": decimal megabytes per second, two decimals so that slow
    // streams do not read as zero.
    static std::string Rate(uint64_t bytes, double seconds);
    // The ISO-8601 form, or "-" for the storage's "no time point" (-1 ns).
    static std::string Time(Moreld::Time::TimePoint tp);
    // The ISO-8601 form, or null for -1 ns.
    static nlohmann::json TimeJson(Moreld::Time::TimePoint tp);

  private:
    const bool json_;
    std::ostream& out_;
};

}  // namespace loopstore::cli
