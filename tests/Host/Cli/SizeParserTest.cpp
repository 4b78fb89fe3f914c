#include "Host/Cli/SizeParser.h"

#include <gtest/gtest.h>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {
namespace {

TEST(SizeParserTest, SuffixesBinaryAndDecimal) {
    EXPECT_EQ(SizeParser::ParseSize("4096"), 4096u);
    EXPECT_EQ(SizeParser::ParseSize("0"), 0u);
    EXPECT_EQ(SizeParser::ParseSize("1K"), 1024u);
    EXPECT_EQ(SizeParser::ParseSize("16M"), 16u * 1024 * 1024);
    EXPECT_EQ(SizeParser::ParseSize("2g"), 2ull << 30);
    EXPECT_EQ(SizeParser::ParseSize("1T"), 1ull << 40);
    EXPECT_EQ(SizeParser::ParseSize("3MiB"), 3u * 1024 * 1024);
    EXPECT_EQ(SizeParser::ParseSize("5MB"), 5'000'000u);
    EXPECT_EQ(SizeParser::ParseSize("7B"), 7u);
    EXPECT_EQ(SizeParser::ParseSignedSize("+64M"), 64 << 20);
    EXPECT_EQ(SizeParser::ParseSignedSize("-16M"), -(16 << 20));
    EXPECT_EQ(SizeParser::ParseSignedSize("100"), 100);
}

TEST(SizeParserTest, BadSizesAndOverflowAreRefused) {
    for (const char* bad :
         {"", "M", "-5", "1.5M", "12Q", "1MM", "1 M", "16777216T", "99999999999999999999"}) {
        EXPECT_THROW(SizeParser::ParseSize(bad), CliError) << bad;
    }
    EXPECT_THROW(SizeParser::ParseSignedSize("+"), CliError);
    EXPECT_THROW(SizeParser::ParseSignedSize("9223372036854775808"), CliError);
    // Sizes travel as signed 64-bit integers.
    EXPECT_EQ(SizeParser::ParseSize("9223372036854775807"), 9223372036854775807u);
    EXPECT_THROW(SizeParser::ParseSize("9223372036854775808"), CliError);
    EXPECT_THROW(SizeParser::ParseSize("8388608T"), CliError);
}

TEST(SizeParserTest, BitRatesAreDecimal) {
    EXPECT_EQ(SizeParser::ParseBitRate("4M"), 4'000'000u);
    EXPECT_EQ(SizeParser::ParseBitRate("500k"), 500'000u);
    EXPECT_EQ(SizeParser::ParseBitRate("2.5Mbps"), 2'500'000u);
    EXPECT_EQ(SizeParser::ParseBitRate("9600"), 9600u);
    for (const char* bad : {"", "fast", "0", "4X", "1.2.3M"})
        EXPECT_THROW(SizeParser::ParseBitRate(bad), CliError) << bad;
    // Beyond what a long double holds, either way.
    EXPECT_THROW(SizeParser::ParseBitRate(std::string(5000, '9')), CliError);
    EXPECT_THROW(SizeParser::ParseBitRate("0." + std::string(5000, '0') + "1"), CliError);
}

}  // namespace
}  // namespace loopstore::cli
