#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Host/Cli/MpegTsChunkSource.h"
#include "Host/Cli/StreamChunkSource.h"
#include "Host/Cli/SyntheticChunkSource.h"
#include "Host/Cli/SyntheticPayload.h"

namespace loopstore::cli {
namespace {

using Moreld::Time::TimePoint;

std::vector<SourceChunk> Drain(IChunkSource& source) {
    std::vector<SourceChunk> out;
    SourceChunk chunk;
    TimePoint at;
    while (source.Next(at, chunk)) {
        at += chunk.duration;
        out.push_back(chunk);
    }
    return out;
}

// The bytes read ahead to detect the format come first, then the stream,
// cut at the chunk size whatever the boundary between the two.
TEST(ChunkSourceTest, StreamIsCutBySizeWithTheHeadFirst) {
    std::istringstream in("ABCDEFGHIJKLMNOPQRSTUVWXY");
    StreamChunkSource source(in, "0123456789", 8, TimePoint::FromMilliseconds(40));
    const auto chunks = Drain(source);
    ASSERT_EQ(chunks.size(), 5u);
    std::string all;
    for (const SourceChunk& c : chunks) {
        EXPECT_LE(c.payload.size(), 8u);
        EXPECT_EQ(c.duration, TimePoint::FromMilliseconds(40));
        all += c.payload;
    }
    EXPECT_EQ(all, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXY");
    EXPECT_EQ(chunks.back().payload, "WXY");

    std::istringstream empty;
    StreamChunkSource none(empty, "", 8, TimePoint::FromMilliseconds(40));
    EXPECT_TRUE(Drain(none).empty());
}

TEST(ChunkSourceTest, MpegTsSourceKeepsEveryPacketOfHeadAndStream) {
    std::string packets;
    for (int i = 0; i < 30; ++i) {
        std::string p(188, static_cast<char>('a' + i % 20));
        p[0] = 0x47, p[1] = 0x01, p[2] = 0x00, p[3] = 0x10;
        packets += p;
    }
    std::istringstream in(packets.substr(400));
    MpegTsChunkSource source(in, packets.substr(0, 400), 10 * 188, TimePoint::FromMilliseconds(40));
    const auto chunks = Drain(source);
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[0].payload + chunks[1].payload + chunks[2].payload, packets);
    EXPECT_EQ(source.DroppedBytes(), 0u);
}

TEST(ChunkSourceTest, SyntheticStreamIsSizedByBitRateAndReproducible) {
    EXPECT_EQ(SyntheticChunkSource::ChunkSize(4'000'000, TimePoint::FromMilliseconds(40)), 20000u);
    EXPECT_EQ(SyntheticChunkSource::ChunkSize(8, TimePoint::FromNanoseconds(1)), 1u);
    // 100 ms in 40 ms chunks: the last chunk is whole.
    SyntheticChunkSource source(7, 4'000'000, TimePoint::FromMilliseconds(40),
                                TimePoint::FromMilliseconds(100));
    const auto chunks = Drain(source);
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[1].payload, SyntheticPayload::Make(7, TimePoint::FromMilliseconds(40), 20000));
    EXPECT_NE(SyntheticPayload::Make(7, TimePoint::FromMilliseconds(40), 64),
              SyntheticPayload::Make(8, TimePoint::FromMilliseconds(40), 64));
    EXPECT_NE(SyntheticPayload::Make(7, TimePoint::FromMilliseconds(40), 64),
              SyntheticPayload::Make(7, TimePoint::FromMilliseconds(80), 64));
    EXPECT_EQ(SyntheticPayload::Make(7, TimePoint(), 13).size(), 13u);
}

}  // namespace
}  // namespace loopstore::cli
