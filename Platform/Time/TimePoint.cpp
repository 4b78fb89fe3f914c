#include "Platform/Time/TimePoint.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <ostream>
#include <stdexcept>

namespace Moreld::Time {

namespace {

constexpr int64_t kNanosPerSecond = 1'000'000'000;

// Floor division, so that instants before 1970 print as the right second.
void SplitSeconds(int64_t ns, int64_t& seconds, int64_t& fraction) {
    seconds = ns / kNanosPerSecond;
    fraction = ns % kNanosPerSecond;
    if (fraction < 0) {
        fraction += kNanosPerSecond;
        seconds -= 1;
    }
}

// Days since 1970-01-01 of a proleptic Gregorian date (Howard Hinnant's algorithm).
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

[[noreturn]] void BadTime(const std::string& text) {
    throw std::invalid_argument("Not an ISO-8601 time point: \"" + text + "\"");
}

bool IsLeapYear(int64_t y) {
    return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0);
}

int64_t DaysInMonth(int64_t year, int64_t month) {
    static constexpr int64_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Nanoseconds of a whole second count and a fraction, or an exception when the
// instant lies outside what 64 bits of nanoseconds can hold (about 1677 to 2262).
int64_t CheckedNanoseconds(const std::string& text, int64_t seconds, int64_t fraction) {
    const __int128 ns = static_cast<__int128>(seconds) * kNanosPerSecond + fraction;
    if (ns < INT64_MIN || ns > INT64_MAX) {
        throw std::invalid_argument("Time point \"" + text +
                                    "\" is out of range: instants run from " +
                                    TimePoint::FromNanoseconds(INT64_MIN).ToString() + " to " +
                                    TimePoint::FromNanoseconds(INT64_MAX).ToString());
    }
    return static_cast<int64_t>(ns);
}

// Reads exactly `count` digits at `pos`.
int64_t Digits(const std::string& text, size_t& pos, size_t count) {
    if (pos + count > text.size())
        BadTime(text);
    int64_t value = 0;
    for (size_t i = 0; i < count; ++i, ++pos) {
        char c = text[pos];
        if (c < '0' || c > '9')
            BadTime(text);
        value = value * 10 + (c - '0');
    }
    return value;
}

void Expect(const std::string& text, size_t& pos, char c) {
    if (pos >= text.size() || text[pos] != c)
        BadTime(text);
    ++pos;
}

}  // namespace

TimePoint TimePoint::Now() {
    auto now = std::chrono::system_clock::now().time_since_epoch();
    return TimePoint(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

std::string TimePoint::ToString() const {
    int64_t seconds, fraction;
    SplitSeconds(ns_, seconds, fraction);
    time_t t = static_cast<time_t>(seconds);
    struct tm utc;
    gmtime_r(&t, &utc);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%09ldZ", utc.tm_year + 1900,
             utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
             static_cast<long>(fraction));
    return buf;
}

std::string TimePoint::ToDurationString() const {
    // Print the magnitude, so that -0.5 s is "-0.500000000s" and not "-1.5...".
    uint64_t magnitude = ns_ < 0 ? 0 - static_cast<uint64_t>(ns_) : static_cast<uint64_t>(ns_);
    char buf[48];
    snprintf(buf, sizeof buf, "%s%lu.%09lus", ns_ < 0 ? "-" : "",
             static_cast<unsigned long>(magnitude / kNanosPerSecond),
             static_cast<unsigned long>(magnitude % kNanosPerSecond));
    return buf;
}

TimePoint TimePoint::FromString(const std::string& text) {
    size_t pos = 0;
    int64_t year = Digits(text, pos, 4);
    Expect(text, pos, '-');
    int64_t month = Digits(text, pos, 2);
    Expect(text, pos, '-');
    int64_t day = Digits(text, pos, 2);
    Expect(text, pos, 'T');
    int64_t hour = Digits(text, pos, 2);
    Expect(text, pos, ':');
    int64_t minute = Digits(text, pos, 2);
    Expect(text, pos, ':');
    int64_t second = Digits(text, pos, 2);
    if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) || hour > 23 ||
        minute > 59 || second > 60) {
        BadTime(text);
    }
    int64_t fraction = 0;
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        size_t digits = 0;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            if (digits < 9)
                fraction = fraction * 10 + (text[pos] - '0');
            ++digits;
            ++pos;
        }
        if (digits == 0)
            BadTime(text);
        for (; digits < 9; ++digits)
            fraction *= 10;
    }
    int64_t offsetSeconds = 0;
    if (pos < text.size() && text[pos] == 'Z') {
        ++pos;
    } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        int sign = text[pos] == '-' ? -1 : 1;
        ++pos;
        int64_t oh = Digits(text, pos, 2);
        Expect(text, pos, ':');
        int64_t om = Digits(text, pos, 2);
        offsetSeconds = sign * (oh * 3600 + om * 60);
    } else {
        BadTime(text);
    }
    if (pos != text.size())
        BadTime(text);
    int64_t days = DaysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second - offsetSeconds;
    return TimePoint(CheckedNanoseconds(text, seconds, fraction));
}

std::ostream& operator<<(std::ostream& os, const TimePoint& tp) {
    return os << tp.ToString();
}

}  // namespace Moreld::Time
