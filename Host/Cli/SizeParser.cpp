#include "Host/Cli/SizeParser.h"

#include <cctype>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {

constexpr uint64_t kLargest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());

[[noreturn]] void BadSize(const std::string& whole, const std::string& why) {
    throw CliError("bad size '" + whole + "': " + why +
                   " (expected bytes with an optional K, M, G, T suffix, e.g. 64M)");
}

std::string Lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

uint64_t SizeParser::ParseSize(const std::string& text) {
    size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])))
        ++digits;
    if (digits == 0)
        BadSize(text, "a number is missing");
    if (digits > 19)
        BadSize(text, "too large");
    const uint64_t number = std::stoull(text.substr(0, digits));
    const uint64_t multiplier = SuffixMultiplier(text.substr(digits), text);
    // Sizes travel as signed 64-bit integers (the storage API's `long`).
    if (number > kLargest / multiplier)
        BadSize(text, "too large (at most " + std::to_string(kLargest) + " bytes)");
    return number * multiplier;
}

int64_t SizeParser::ParseSignedSize(const std::string& text) {
    const bool negative = !text.empty() && text[0] == '-';
    const bool sign = !text.empty() && (text[0] == '-' || text[0] == '+');
    const uint64_t magnitude = ParseSize(sign ? text.substr(1) : text);
    const auto value = static_cast<int64_t>(magnitude);
    return negative ? -value : value;
}

uint64_t SizeParser::ParseBitRate(const std::string& text) {
    std::string rest = Lower(text);
    for (const char* unit : {"bps", "b/s"}) {
        const std::string u = unit;
        if (rest.size() > u.size() && rest.compare(rest.size() - u.size(), u.size(), u) == 0)
            rest.resize(rest.size() - u.size());
    }
    long double multiplier = 1;
    if (!rest.empty() && std::string("kmg").find(rest.back()) != std::string::npos) {
        multiplier = rest.back() == 'k' ? 1e3L : rest.back() == 'm' ? 1e6L : 1e9L;
        rest.pop_back();
    }
    const bool numeric = !rest.empty() &&
                         rest.find_first_not_of("0123456789.") == std::string::npos &&
                         rest.find('.') == rest.rfind('.') && rest != ".";
    if (!numeric)
        throw CliError("bad bit rate '" + text + "' (expected e.g. 4M, 500k, 2500000)");
    long double bits = 0;
    try {
        bits = std::stold(rest) * multiplier;
    } catch (const std::out_of_range&) {
        bits = -1;  // beyond a long double: out of range below
    }
    if (bits < 1 || bits > 1e15L)
        throw CliError("bad bit rate '" + text + "': out of range");
    return static_cast<uint64_t>(std::llroundl(bits));
}

uint64_t SizeParser::SuffixMultiplier(const std::string& suffix, const std::string& whole) {
    const std::string s = Lower(suffix);
    if (s.empty() || s == "b")
        return 1;
    static const char kPrefixes[] = "kmgt";
    const size_t power = std::string(kPrefixes).find(s[0]);
    if (power == std::string::npos)
        BadSize(whole, "unknown suffix '" + suffix + "'");
    const std::string tail = s.substr(1);
    uint64_t base;
    if (tail.empty() || tail == "ib")
        base = 1024;
    else if (tail == "b")
        base = 1000;
    else
        BadSize(whole, "unknown suffix '" + suffix + "'");
    uint64_t multiplier = 1;
    for (size_t i = 0; i <= power; ++i)
        multiplier *= base;
    return multiplier;
}

}  // namespace loopstore::cli
