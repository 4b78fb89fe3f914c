#include "Host/Cli/MaxAgeText.h"

#include <cstdint>
#include <cstdio>

#include "Host/Cli/CliError.h"
#include "Host/Cli/TimeParser.h"

namespace loopstore::cli {

MaxAgeText::TimePoint MaxAgeText::Parse(const std::string& text) {
    if (text == "off" || text == "0")
        return TimePoint();
    if (!text.empty() && text[0] == '-')
        throw CliError("bad max age '" + text + "': must not be negative (0 or off: no limit)");
    return TimeParser::ParseDuration(text);
}

std::string MaxAgeText::Format(TimePoint maxAge) {
    int64_t ns = maxAge.ToNanoseconds();
    if (ns == 0)
        return "off";
    constexpr int64_t kSecond = 1'000'000'000;
    constexpr struct {
        int64_t ns;
        const char* unit;
    } kUnits[] = {{86400 * kSecond, "d"}, {3600 * kSecond, "h"}, {60 * kSecond, "m"}};
    std::string text = ns < 0 ? "-" : "";
    if (ns < 0)
        ns = -ns;
    for (const auto& unit : kUnits) {
        if (ns >= unit.ns) {
            text += std::to_string(ns / unit.ns) + unit.unit;
            ns %= unit.ns;
        }
    }
    if (ns == 0)
        return text;
    if (ns % kSecond == 0)
        return text + std::to_string(ns / kSecond) + "s";
    // A fraction of a second: up to nine digits, trailing zeros dropped.
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, "%09lld", static_cast<long long>(ns % kSecond));
    std::string digits = fraction;
    digits.erase(digits.find_last_not_of('0') + 1);
    return text + std::to_string(ns / kSecond) + "." + digits + "s";
}

}  // namespace loopstore::cli
