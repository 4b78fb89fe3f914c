#include "Host/Media/ExportedBytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <string>

#include "Platform/Plexa/Converter.h"
#include "tests/Support/TestTime.h"

namespace loopstore::media {
namespace {

using loopstore::test::kSecond;
using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

constexpr uint64_t kWrap = uint64_t{1} << 33;

// One MPEG-TS packet, with a PCR (90 kHz base) when `pcr` is not negative.
std::string Packet(int64_t pcr) {
    std::string p(188, '\xff');
    p[0] = 0x47, p[1] = 0x01, p[2] = 0x00, p[3] = 0x10;
    if (pcr >= 0) {
        const auto base = static_cast<uint64_t>(pcr);
        p[3] = 0x30, p[4] = 7, p[5] = 0x10;
        p[6] = static_cast<char>(base >> 25), p[7] = static_cast<char>(base >> 17);
        p[8] = static_cast<char>(base >> 9), p[9] = static_cast<char>(base >> 1);
        p[10] = static_cast<char>(((base & 1) << 7) | 0x7e), p[11] = 0;
    }
    return p;
}

Protocol::Chunk Chunk(int64_t seconds, std::string data) {
    Protocol::Chunk chunk;
    *chunk.mutable_timepoint() = Converter::To(TimePoint::FromSeconds(seconds));
    *chunk.mutable_duration() = Converter::To(TimePoint::FromSeconds(1));
    chunk.set_data(std::move(data));
    return chunk;
}

// Timestamps are placed by the PCR of the chunk that carries them, across
// the 33-bit wrap of the MPEG clock; a chunk without a PCR falls back on
// the time of its bytes; a hole between chunks is a gap and a splice.
TEST(ExportedBytesTest, PlacesTimestampsByTheChunksClockAndFindsHoles) {
    std::deque<Protocol::Chunk> chunks = {
        Chunk(1000, Packet(kWrap - 45000) + Packet(-1)),  // half a second before the wrap
        Chunk(1001, Packet(-1) + Packet(-1)),
        Chunk(1010, Packet(90000) + Packet(-1)),  // after a hole of 8 s
    };
    std::string expected;
    for (const auto& chunk : chunks)
        expected += chunk.data();
    ExportedBytes bytes(
        [&chunks](Protocol::Chunk& next) {
            if (chunks.empty())
                return false;
            next = chunks.front();
            chunks.pop_front();
            return true;
        },
        TimePoint::FromNanoseconds(1001 * kSecond + kSecond / 5), TimePoint::FromSeconds(1010));
    std::string read;
    uint8_t buffer[100];
    for (size_t n; (n = bytes.Read(buffer, sizeof buffer)) > 0;)
        read.append(reinterpret_cast<const char*>(buffer), n);
    EXPECT_EQ(read, expected);

    EXPECT_EQ(bytes.TimeAt(0, kWrap - 45000 + 9000), 1000 * kSecond + kSecond / 10);
    EXPECT_EQ(bytes.TimeAt(10, 45000), 1001 * kSecond);  // past the wrap
    EXPECT_EQ(bytes.TimeAt(376 + 188, 0), 1001 * kSecond + kSecond / 2);
    EXPECT_EQ(bytes.TimeAt(752 + 200, 81000), 1010 * kSecond - kSecond / 10);

    EXPECT_TRUE(bytes.Splice(0, 752));
    EXPECT_FALSE(bytes.Splice(0, 751));
    EXPECT_FALSE(bytes.Splice(752, 1000));
    ASSERT_EQ(bytes.Gaps().size(), 1u);
    EXPECT_EQ(bytes.Gaps()[0].from, TimePoint::FromSeconds(1002));
    EXPECT_EQ(bytes.Gaps()[0].to, TimePoint::FromSeconds(1010));
    // The first chunk ends before the range, the last begins at its end.
    EXPECT_EQ(bytes.ChunksInRange(), 1u);
}

}  // namespace
}  // namespace loopstore::media
