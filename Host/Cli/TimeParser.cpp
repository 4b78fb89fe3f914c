#include "Host/Cli/TimeParser.h"

#include <cctype>
#include <cmath>
#include <stdexcept>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {

[[noreturn]] void BadDuration(const std::string& whole, const std::string& why) {
    throw CliError("bad duration '" + whole + "': " + why +
                   " (expected e.g. 40ms, 1.5s, 2m, 1h30m; units ns, us, ms, s, m, h, d, w)");
}

// A number of digits with at most one '.'; one too long for a long double
// is out of range like any other too large duration.
long double Number(const std::string& digits, const std::string& whole) {
    try {
        return std::stold(digits);
    } catch (const std::out_of_range&) {
        BadDuration(whole, "out of range");
    }
}

}  // namespace

TimeParser::TimePoint TimeParser::ParseInstant(const std::string& text, TimePoint now) {
    if (text == "now")
        return now;
    if (text.empty())
        throw CliError("bad time '': empty");
    if (text[0] == '+' || text[0] == '-') {
        TimePoint offset;
        try {
            offset = ParseSignedDuration(text);
        } catch (const CliError& e) {
            throw CliError("bad time '" + text + "': " + e.what());
        }
        return Shift(now, offset, text);
    }
    if (text.size() > 2 && text.compare(text.size() - 2, 2, "ns") == 0 &&
        text.find_first_not_of("0123456789") == text.size() - 2) {
        try {
            return TimePoint::FromNanoseconds(std::stoll(text.substr(0, text.size() - 2)));
        } catch (const std::out_of_range&) {
            throw CliError("bad time '" + text + "': out of range");
        }
    }
    try {
        return TimePoint::FromString(text);
    } catch (const std::exception& e) {
        throw CliError("bad time '" + text + "': " + e.what() +
                       " (expected an ISO-8601 instant such as 2026-11-21T04:33:00Z, now, "
                       "-10m, +30s, -1d, -2w or 123ns)");
    }
}

TimeParser::Range TimeParser::ParseRange(const std::string& from, const std::string& to,
                                         TimePoint now) {
    const Range range{ParseInstant(from, now), ParseInstant(to, now)};
    if (range.to <= range.from)
        throw CliError("bad time range: --to " + range.to.ToString() + " is not after --from " +
                       range.from.ToString());
    int64_t length = 0;
    if (__builtin_sub_overflow(range.to.ToNanoseconds(), range.from.ToNanoseconds(), &length))
        throw CliError("bad time range: " + range.from.ToString() + " .. " + range.to.ToString() +
                       " is longer than about 292 years");
    return range;
}

TimeParser::TimePoint TimeParser::ParseDuration(const std::string& text) {
    const TimePoint d = ToTimePoint(ParseTerms(text, text), text);
    if (d <= TimePoint())
        BadDuration(text, "must be positive");
    return d;
}

TimeParser::TimePoint TimeParser::ParseSignedDuration(const std::string& text) {
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        const long double ns = ParseTerms(text.substr(1), text);
        return ToTimePoint(text[0] == '-' ? -ns : ns, text);
    }
    return ToTimePoint(ParseTerms(text, text), text);
}

long double TimeParser::ParseTerms(const std::string& text, const std::string& whole) {
    if (text.empty())
        BadDuration(whole, "empty");
    long double total = 0;
    size_t i = 0;
    while (i < text.size()) {
        const size_t numberStart = i;
        while (i < text.size() &&
               (std::isdigit(static_cast<unsigned char>(text[i])) || text[i] == '.'))
            ++i;
        if (i == numberStart)
            BadDuration(whole, "a number is missing");
        const std::string number = text.substr(numberStart, i - numberStart);
        if (number.find('.') != number.rfind('.') || number == ".")
            BadDuration(whole, "'" + number + "' is not a number");
        const size_t unitStart = i;
        while (i < text.size() && std::isalpha(static_cast<unsigned char>(text[i])))
            ++i;
        const std::string unit = text.substr(unitStart, i - unitStart);
        total += Number(number, whole) * UnitNanoseconds(unit, whole);
    }
    return total;
}

long double TimeParser::UnitNanoseconds(const std::string& unit, const std::string& whole) {
    if (unit == "ns")
        return 1;
    if (unit == "us")
        return 1e3L;
    if (unit == "ms")
        return 1e6L;
    if (unit == "s")
        return 1e9L;
    if (unit == "m")
        return 60e9L;
    if (unit == "h")
        return 3600e9L;
    if (unit == "d")
        return 86400e9L;
    if (unit == "w")
        return 7 * 86400e9L;
    BadDuration(whole, unit.empty() ? "a unit is missing" : "unknown unit '" + unit + "'");
}

TimeParser::TimePoint TimeParser::ToTimePoint(long double ns, const std::string& whole) {
    // Beyond ~292 years a nanosecond count no longer fits 64 bits.
    if (!(std::fabs(ns) < 9.2e18L))
        BadDuration(whole, "out of range");
    return TimePoint::FromNanoseconds(static_cast<int64_t>(std::llroundl(ns)));
}

TimeParser::TimePoint TimeParser::Shift(TimePoint now, TimePoint offset, const std::string& whole) {
    int64_t ns = 0;
    if (__builtin_add_overflow(now.ToNanoseconds(), offset.ToNanoseconds(), &ns))
        throw CliError("bad time '" + whole + "': " + now.ToString() + " " + whole +
                       " is out of range (instants run from 1677 to 2262)");
    return TimePoint::FromNanoseconds(ns);
}

}  // namespace loopstore::cli
