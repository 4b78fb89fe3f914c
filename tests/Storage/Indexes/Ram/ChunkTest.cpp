#include "Storage/Indexes/Ram/Chunk.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "Storage/Indexes/Ram/BlockConfiguration.h"
#include "Storage/Indexes/Ram/ChunkLocation.h"
#include "tests/Support/TestTime.h"

using FileSystem::Chunk;
using loopstore::test::Ns;
using Moreld::Time::TimePoint;

namespace {

std::string FromStringError(const std::string& text) {
    try {
        BlockConfiguration::FromString(text);
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

}  // namespace

TEST(Chunk, ConstructorsAndTextForms) {
    EXPECT_EQ(ChunkLocation().ToString(), "0_0_0_0_0_1;0;0;0");
    ChunkLocation location(ChunkFile(42, 8, 268435456, 7), 16, 44, 0);
    EXPECT_EQ(location.ToString(), "42_8_268435456_7_0_1;16;44;0");
    location.offset = 18446744073709551615ul;  // printed unsigned
    EXPECT_EQ(location.ToString(), "42_8_268435456_7_0_1;18446744073709551615;44;0");

    const Chunk none;
    EXPECT_EQ(none.ToString(), "0_0_0_0_0_0_0_0_1;0;0;0");
    EXPECT_EQ(none.sequenceNumber, 0u);

    const ChunkLocation place(ChunkFile(42, 8, 1024, 7), 60, 40, 1);
    const Chunk three(Ns(-1), Ns(40), place);
    EXPECT_EQ(three.accumulatedDuration, Ns(0));
    EXPECT_EQ(three.ToString(), "-1_40_0_42_8_1024_7_0_1;60;40;1");
    const Chunk four(Ns(1000), Ns(40), Ns(123), place);
    EXPECT_EQ(four.sequenceNumber, 0u);
    EXPECT_EQ(four.ToString(), "1000_40_123_42_8_1024_7_0_1;60;40;1");

    std::ostringstream os;
    os << four;
    EXPECT_NE(os.str().find("42_8_1024_7_0_1"), std::string::npos) << os.str();
}

TEST(Chunk, EqualityLeavesSequenceNumberOut) {
    const Chunk base(Ns(1000), Ns(40), Ns(10), ChunkLocation(ChunkFile(42, 8, 1024, 7), 16, 44, 0));

    // As read back from the track database: no sequence number stored.
    Chunk fromDatabase = base;
    fromDatabase.sequenceNumber = 99;
    fromDatabase.location.file.SetFromEmptyFile(false);
    EXPECT_EQ(fromDatabase, base);

    auto differs = [&](auto change) {
        Chunk other = base;
        change(other);
        return other != base;
    };
    EXPECT_TRUE(differs([](Chunk& c) { c.timepoint = Ns(1001); }));
    EXPECT_TRUE(differs([](Chunk& c) { c.duration = Ns(41); }));
    EXPECT_TRUE(differs([](Chunk& c) { c.accumulatedDuration = Ns(11); }));
    EXPECT_TRUE(differs([](Chunk& c) { c.location.file.SetFifthValue(1); }));
    EXPECT_TRUE(differs([](Chunk& c) { c.location.offset = 17; }));
    EXPECT_TRUE(differs([](Chunk& c) { c.location.size = 45; }));
    EXPECT_TRUE(differs([](Chunk& c) { c.location.chunkIndex = 1; }));
}

TEST(BlockConfiguration, ParsesAndPrintsTextForm) {
    EXPECT_EQ(BlockConfiguration::FromString("100_0").ToString(), "100_0");
    EXPECT_EQ(BlockConfiguration("104857600_0").ToString(), "104857600_0");
    // Read as std::stoll: blanks skipped, trailing text ignored.
    EXPECT_EQ(BlockConfiguration::FromString(" 12_3abc").ToString(), "12_3");
    // Only the first '_' separates.
    EXPECT_EQ(BlockConfiguration::FromString("5_6_7").ToString(), "5_6");
    // A negative limit wraps to a huge unsigned one.
    EXPECT_EQ(BlockConfiguration::FromString("-1_0").GetMaxSize(), ~0ul);

    EXPECT_TRUE(BlockConfiguration(0, 1).OneChunkPerFile());
    EXPECT_FALSE(BlockConfiguration(1000, 1).OneChunkPerFile());
    EXPECT_FALSE(BlockConfiguration(0, 1).IsUnlimited());
    EXPECT_TRUE(BlockConfiguration(0, 1).IsEqual(BlockConfiguration("0_1")));
    EXPECT_FALSE(BlockConfiguration(0, 1).IsEqual(BlockConfiguration(1, 1)));
}

TEST(BlockConfiguration, RefusesBadTextAndNoLimits) {
    EXPECT_EQ(FromStringError("12"), "Could not find '_' in string 12");
    EXPECT_EQ(FromStringError("a_3"), "string doesn't have format <integer>_<integer>: a_3");
    EXPECT_EQ(FromStringError("3_"), "string doesn't have format <integer>_<integer>: 3_");
    EXPECT_EQ(FromStringError("0_0"), "maxSize and maxChunk cannot be both equal to 0");
    EXPECT_THROW(BlockConfiguration::FromString("99999999999999999999_1"), std::out_of_range);
    EXPECT_THROW(BlockConfiguration(0, 0), std::runtime_error);
    EXPECT_THROW(BlockConfiguration("x"), std::runtime_error);

    BlockConfiguration configuration(100, 2);
    try {
        configuration.Set(0, 0);
        ADD_FAILURE() << "Set(0, 0) accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "maxSize and maxChunk cannot be both equal to 0");
    }
    EXPECT_EQ(configuration.ToString(), "100_2");
    configuration.Set(0, 5);
    EXPECT_EQ(configuration.ToString(), "0_5");
}
