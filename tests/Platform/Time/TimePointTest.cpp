#include "Platform/Time/TimePoint.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

using Moreld::Time::TimePoint;

TEST(TimePoint, DefaultIsZeroAndArithmeticIsNanoseconds) {
    EXPECT_EQ(TimePoint().ToNanoseconds(), 0);
    TimePoint a = TimePoint::FromNanoseconds(1'500'000'000);
    TimePoint b = TimePoint::FromSeconds(1);
    EXPECT_EQ((a - b).ToNanoseconds(), 500'000'000);
    EXPECT_EQ((a + b).ToNanoseconds(), 2'500'000'000);
    EXPECT_LT(b, a);
    EXPECT_EQ(TimePoint::FromMilliseconds(1500), a);
    a -= b;
    EXPECT_EQ(a, TimePoint::FromMilliseconds(500));
}

TEST(TimePoint, PrintsIsoUtcAndDurations) {
    EXPECT_EQ(TimePoint().ToString(), "1970-01-01T00:00:00.000000000Z");
    // -1 ns is the answer for "no time point": it must print before the epoch.
    EXPECT_EQ(TimePoint::FromNanoseconds(-1).ToString(), "1969-12-31T23:59:59.999999999Z");
    EXPECT_EQ(TimePoint::FromNanoseconds(1'795'000'000'123'456'789).ToString(),
              "2026-11-18T11:06:40.123456789Z");
    EXPECT_EQ(TimePoint::FromMilliseconds(1500).ToDurationString(), "1.500000000s");
    EXPECT_EQ(TimePoint::FromMilliseconds(-500).ToDurationString(), "-0.500000000s");
    std::ostringstream os;
    os << TimePoint::FromSeconds(86400);
    EXPECT_EQ(os.str(), "1970-01-02T00:00:00.000000000Z");
}

TEST(TimePoint, ParsesWhatItPrintsAndRejectsGarbage) {
    for (int64_t ns : {int64_t{0}, int64_t{-1}, int64_t{1'795'000'000'123'456'789},
                       int64_t{-86'400'000'000'001}}) {
        TimePoint tp = TimePoint::FromNanoseconds(ns);
        EXPECT_EQ(TimePoint::FromString(tp.ToString()), tp) << tp;
    }
    EXPECT_EQ(TimePoint::FromString("1970-01-01T00:00:01.5Z"), TimePoint::FromMilliseconds(1500));
    EXPECT_EQ(TimePoint::FromString("1970-01-01T01:00:00+01:00"), TimePoint());
    EXPECT_EQ(TimePoint::FromString("2000-02-29T00:00:00Z").ToString(),
              "2000-02-29T00:00:00.000000000Z");
    for (const char* bad : {"", "2026-11-21", "2026-13-01T00:00:00Z", "2026-11-21T00:00:00",
                            "2026-11-21T00:00:00.Z", "2026-11-21T00:00:00Zjunk"}) {
        EXPECT_THROW(TimePoint::FromString(bad), std::invalid_argument) << bad;
    }
}

// Instants beyond 64-bit nanoseconds, through the date, the fraction or the
// offset, are refused as bad text; the two ends themselves still parse.
TEST(TimePoint, RefusesInstantsOutsideTheNanosecondRange) {
    for (int64_t ns : {INT64_MIN, INT64_MAX}) {
        const TimePoint tp = TimePoint::FromNanoseconds(ns);
        EXPECT_EQ(TimePoint::FromString(tp.ToString()), tp) << tp;
    }
    for (const char* far :
         {"2300-01-01T00:00:00Z", "9999-12-31T23:59:59.999999999Z", "1600-01-01T00:00:00Z",
          "0000-01-01T00:00:00Z", "2262-04-11T23:47:16.854775808Z",
          "1677-09-21T00:12:43.145224191Z", "2262-04-11T23:47:16.854775807-00:01",
          "1677-09-21T00:12:43.145224192+00:01"}) {
        try {
            TimePoint::FromString(far);
            ADD_FAILURE() << "accepted " << far;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find("out of range"), std::string::npos) << e.what();
        }
    }
    EXPECT_THROW(TimePoint::FromString("2026-02-29T00:00:00Z"), std::invalid_argument);
    EXPECT_THROW(TimePoint::FromString("2026-04-31T00:00:00Z"), std::invalid_argument);
    EXPECT_EQ(TimePoint::FromString("2024-02-29T00:00:00Z").ToString(),
              "2024-02-29T00:00:00.000000000Z");
}
