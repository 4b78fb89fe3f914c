#include "Host/Cli/TimeParser.h"

#include <gtest/gtest.h>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {
namespace {

using Moreld::Time::TimePoint;

const TimePoint kNow = TimePoint::FromSeconds(1'800'000'000);

TEST(TimeParserTest, DurationsInEveryUnitAndCompound) {
    EXPECT_EQ(TimeParser::ParseDuration("40ms"), TimePoint::FromMilliseconds(40));
    EXPECT_EQ(TimeParser::ParseDuration("1s"), TimePoint::FromSeconds(1));
    EXPECT_EQ(TimeParser::ParseDuration("2m"), TimePoint::FromSeconds(120));
    EXPECT_EQ(TimeParser::ParseDuration("1h30m"), TimePoint::FromSeconds(5400));
    EXPECT_EQ(TimeParser::ParseDuration("1.5s"), TimePoint::FromMilliseconds(1500));
    EXPECT_EQ(TimeParser::ParseDuration("250us"), TimePoint::FromNanoseconds(250'000));
    EXPECT_EQ(TimeParser::ParseDuration("7ns"), TimePoint::FromNanoseconds(7));
    EXPECT_EQ(TimeParser::ParseSignedDuration("-10m"), TimePoint::FromSeconds(-600));
}

TEST(TimeParserTest, BadDurationsAreRefusedWithTheirText) {
    for (const char* bad : {"", "40", "ms", "4x", "1..2s", "0s", "-1s", "1s-", "99999999999h"}) {
        try {
            TimeParser::ParseDuration(bad);
            ADD_FAILURE() << "accepted '" << bad << "'";
        } catch (const CliError& e) {
            EXPECT_NE(std::string(e.what()).find(std::string("'") + bad + "'"), std::string::npos)
                << e.what();
        }
    }
}

TEST(TimeParserTest, InstantsAbsoluteRelativeAndRaw) {
    EXPECT_EQ(TimeParser::ParseInstant("now", kNow), kNow);
    EXPECT_EQ(TimeParser::ParseInstant("-10m", kNow), kNow - TimePoint::FromSeconds(600));
    EXPECT_EQ(TimeParser::ParseInstant("+30s", kNow), kNow + TimePoint::FromSeconds(30));
    EXPECT_EQ(TimeParser::ParseInstant("-1d", kNow), kNow - TimePoint::FromSeconds(86'400));
    EXPECT_EQ(TimeParser::ParseInstant("-2w", kNow), kNow - TimePoint::FromSeconds(14 * 86'400));
    EXPECT_EQ(TimeParser::ParseInstant("-1d12h", kNow), kNow - TimePoint::FromSeconds(129'600));
    EXPECT_EQ(TimeParser::ParseInstant("123ns", kNow), TimePoint::FromNanoseconds(123));
    EXPECT_EQ(TimeParser::ParseInstant("2027-01-15T08:00:00Z", kNow),
              TimePoint::FromString("2027-01-15T08:00:00Z"));
    EXPECT_EQ(TimeParser::ParseInstant("2027-01-15T09:00:00.5+01:00", kNow),
              TimePoint::FromString("2027-01-15T08:00:00.5Z"));
}

TEST(TimeParserTest, BadInstantsSayBadTime) {
    for (const char* bad : {"", "yesterday", "2027-13-45T00:00:00Z", "12:00", "+", "-5", "ns",
                            "99999999999999999999ns"}) {
        try {
            TimeParser::ParseInstant(bad, kNow);
            ADD_FAILURE() << "accepted '" << bad << "'";
        } catch (const CliError& e) {
            EXPECT_EQ(std::string(e.what()).rfind("bad time", 0), 0u) << e.what();
        }
    }
}

// Values that fit alone but not once added to now, instants past 2262, and
// numbers too long for any float are refused as bad times, not wrapped.
TEST(TimeParserTest, OutOfRangeTimesAreRefused) {
    for (const char* far :
         {"+2222222h", "+9223372036s", "2300-01-01T00:00:00Z", "1600-01-01T00:00:00Z"}) {
        try {
            const TimePoint t = TimeParser::ParseInstant(far, kNow);
            ADD_FAILURE() << "accepted '" << far << "' as " << t.ToNanoseconds() << " ns";
        } catch (const CliError& e) {
            EXPECT_EQ(std::string(e.what()).rfind(std::string("bad time '") + far + "'", 0), 0u)
                << e.what();
            EXPECT_NE(std::string(e.what()).find("out of range"), std::string::npos) << e.what();
        }
    }
    const std::string longNumber = std::string(5000, '9') + "s";
    EXPECT_THROW(TimeParser::ParseDuration(longNumber), CliError);
    EXPECT_THROW(TimeParser::ParseInstant("+" + longNumber, kNow), CliError);
    EXPECT_THROW(TimeParser::ParseDuration("0." + std::string(5000, '0') + "1s"), CliError);
    // A large offset works as long as the sum fits.
    EXPECT_EQ(TimeParser::ParseInstant("-2500000h", TimePoint()),
              TimePoint::FromSeconds(-2'500'000LL * 3600));
    EXPECT_THROW(TimeParser::ParseInstant("-2500000h", TimePoint::FromSeconds(-1'000'000'000)),
                 CliError);
}

TEST(TimeParserTest, RangesMustBeOrderedAndRepresentable) {
    const auto range = TimeParser::ParseRange("-1h", "+1h", kNow);
    EXPECT_EQ(range.from, kNow - TimePoint::FromSeconds(3600));
    EXPECT_EQ(range.to, kNow + TimePoint::FromSeconds(3600));
    EXPECT_THROW(TimeParser::ParseRange("+1h", "-1h", kNow), CliError);
    EXPECT_THROW(TimeParser::ParseRange("now", "now", kNow), CliError);
    // Both ends fit, their distance does not.
    EXPECT_THROW(TimeParser::ParseRange("1678-01-01T00:00:00Z", "2262-01-01T00:00:00Z", kNow),
                 CliError);
}

}  // namespace
}  // namespace loopstore::cli
