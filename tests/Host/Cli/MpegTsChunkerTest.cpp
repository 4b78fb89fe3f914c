#include "Host/Cli/MpegTsChunker.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace loopstore::cli {
namespace {

using Moreld::Time::TimePoint;
constexpr size_t kPacket = MpegTsChunker::kPacketSize;

// One transport packet of `pid`, its payload filled with `fill`; with a PCR
// (in nanoseconds, a multiple of 1/27 µs is not needed: ticks round down)
// carried in an adaptation field when given.
std::string Packet(int pid, char fill, std::optional<int64_t> pcrNs = std::nullopt) {
    std::string p(kPacket, fill);
    p[0] = 0x47;
    p[1] = static_cast<char>((pid >> 8) & 0x1f);
    p[2] = static_cast<char>(pid & 0xff);
    p[3] = pcrNs ? 0x30 : 0x10;
    if (pcrNs) {
        const uint64_t ticks = static_cast<uint64_t>(*pcrNs) * 27 / 1000;
        const uint64_t base = ticks / 300, ext = ticks % 300;
        p[4] = 7;
        p[5] = 0x10;
        p[6] = static_cast<char>(base >> 25);
        p[7] = static_cast<char>(base >> 17);
        p[8] = static_cast<char>(base >> 9);
        p[9] = static_cast<char>(base >> 1);
        p[10] = static_cast<char>(((base & 1) << 7) | 0x7e | (ext >> 8));
        p[11] = static_cast<char>(ext & 0xff);
    }
    return p;
}

// Feeds `stream` in pieces of `step` bytes (packet boundaries fall anywhere).
std::vector<SourceChunk> Cut(const std::string& stream, MpegTsChunker& chunker, size_t step) {
    for (size_t at = 0; at < stream.size(); at += step)
        chunker.Feed(std::string_view(stream).substr(at, step));
    chunker.Finish();
    std::vector<SourceChunk> out(chunker.Ready().begin(), chunker.Ready().end());
    chunker.Ready().clear();
    return out;
}

std::string Joined(const std::vector<SourceChunk>& chunks) {
    std::string all;
    for (const SourceChunk& c : chunks) {
        EXPECT_EQ(c.payload.size() % kPacket, 0u);
        EXPECT_EQ(c.payload[0], 0x47);
        all += c.payload;
    }
    return all;
}

TEST(MpegTsChunkerTest, WithoutClockCutsWholePacketsBySize) {
    std::string stream;
    for (int i = 0; i < 50; ++i)
        stream += Packet(0x100, static_cast<char>('a' + i % 26));
    // 1000 bytes round down to 5 packets per chunk.
    MpegTsChunker chunker(TimePoint::FromMilliseconds(40), 1000);
    const auto chunks = Cut(stream, chunker, 7);
    ASSERT_EQ(chunks.size(), 10u);
    for (const SourceChunk& c : chunks) {
        EXPECT_EQ(c.payload.size(), 5 * kPacket);
        EXPECT_EQ(c.duration, TimePoint::FromMilliseconds(40));
    }
    EXPECT_EQ(Joined(chunks), stream);
    EXPECT_EQ(chunker.SkippedBytes(), 0u);
}

TEST(MpegTsChunkerTest, ClockPacesChunksAndDiscontinuityFallsBackToNominal) {
    // A PCR every 4 packets, 10 ms apart; the clock jumps back once.
    std::string stream;
    int64_t pcr = 5'000'000'000;
    for (int i = 0; i < 80; ++i) {
        if (i == 60)
            pcr = 1'000'000'000;
        const bool withPcr = i % 4 == 0;
        stream += Packet(0x100, 'v', withPcr ? std::optional<int64_t>(pcr) : std::nullopt);
        if (withPcr)
            pcr += 10'000'000;
    }
    MpegTsChunker chunker(TimePoint::FromMilliseconds(40), 1 << 20);
    const auto chunks = Cut(stream, chunker, 1000);
    EXPECT_EQ(Joined(chunks), stream);
    // Packets 0..59: chunks of 16 packets (40 ms) then the cut before the jump.
    ASSERT_GE(chunks.size(), 5u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(chunks[i].payload.size(), 16 * kPacket) << i;
        EXPECT_NEAR(static_cast<double>(chunks[i].duration.ToNanoseconds()), 40e6, 1e3) << i;
    }
    EXPECT_EQ(chunks[3].payload.size(), 12 * kPacket);
    EXPECT_EQ(chunks[3].duration, TimePoint::FromMilliseconds(40));
}

// Whatever the clock does (one PCR then none, one PCR value repeated, the
// clock moving to another stream), no chunk outgrows the size limit and no
// byte is lost.
TEST(MpegTsChunkerTest, SizeLimitHoldsWhateverTheClockDoes) {
    std::string onePcrThenNone = Packet(0x100, 'v', 1'000'000'000);
    std::string samePcrRepeated, clockMoves;
    for (int i = 0; i < 3000; ++i) {
        onePcrThenNone += Packet(0x100, 'v');
        samePcrRepeated += Packet(0x100, 'v', i % 3 == 0 ? 7'000'000 : std::optional<int64_t>());
        const int64_t pcr = 1'000'000'000 + int64_t{i} * 1'000'000;
        clockMoves += i < 10 ? Packet(0x100, 'v', pcr) : Packet(0x101, 'a', pcr);
    }
    for (const std::string* stream : {&onePcrThenNone, &samePcrRepeated, &clockMoves}) {
        // 65536 bytes hold 348 whole packets.
        MpegTsChunker chunker(TimePoint::FromMilliseconds(40), 65'536);
        const auto chunks = Cut(*stream, chunker, 4096);
        EXPECT_EQ(Joined(chunks), *stream);
        EXPECT_GE(chunks.size(), stream->size() / 65'536);
        for (const SourceChunk& c : chunks) {
            EXPECT_LE(c.payload.size(), 348 * kPacket);
            EXPECT_GT(c.duration, TimePoint());
        }
    }
}

// A clock that stands still, jumps 12 hours ahead and back, with chunks of
// one packet each: no chunk is stretched by the jump.
TEST(MpegTsChunkerTest, ClockJumpsDoNotStretchChunksCutBySize) {
    std::string stream;
    for (int i = 0; i < 8; ++i)
        stream += Packet(0x100, 'v', i == 4 ? 44'166'112'493'259 : 7'000'000);
    MpegTsChunker chunker(TimePoint::FromMilliseconds(40), kPacket);
    const auto chunks = Cut(stream, chunker, 1000);
    EXPECT_EQ(Joined(chunks), stream);
    ASSERT_EQ(chunks.size(), 8u);
    for (const SourceChunk& c : chunks)
        EXPECT_EQ(c.duration, TimePoint::FromMilliseconds(40));
}

// A chunk that fills up between two PCRs is cut there and lasts until the
// last PCR it holds; the next one starts from that PCR, so durations still
// add up to media time.
TEST(MpegTsChunkerTest, ChunkCutBySizeLastsUntilItsLastPcr) {
    // A PCR every 2 packets, 10 ms apart; 5 packets per chunk; 1 s target.
    std::string stream;
    for (int i = 0; i < 40; ++i)
        stream += Packet(
            0x100, 'v', i % 2 == 0 ? std::optional<int64_t>(int64_t{i} * 5'000'000) : std::nullopt);
    MpegTsChunker chunker(TimePoint::FromSeconds(1), 5 * kPacket);
    const auto chunks = Cut(stream, chunker, 1000);
    EXPECT_EQ(Joined(chunks), stream);
    ASSERT_EQ(chunks.size(), 8u);
    int64_t total = 0;
    for (size_t i = 0; i + 1 < chunks.size(); ++i) {
        EXPECT_EQ(chunks[i].payload.size(), 5 * kPacket) << i;
        const int64_t ns = chunks[i].duration.ToNanoseconds();
        EXPECT_NEAR(static_cast<double>(ns), i % 2 == 0 ? 20e6 : 30e6, 1e3) << i;
        total += ns;
    }
    // Seven chunks end where the eighth starts: at the PCR of packet 34, 170 ms.
    EXPECT_NEAR(static_cast<double>(total), 170e6, 1e4);
}

// Garbage between packets (stray sync bytes included) is skipped; the
// packets around it are kept whole.
TEST(MpegTsChunkerTest, ResyncsAfterGarbageAndDropsATruncatedPacket) {
    std::string clean, damaged;
    for (int i = 0; i < 20; ++i) {
        const std::string p = Packet(0x100, static_cast<char>('a' + i));
        clean += p;
        damaged += p;
        if (i == 5)
            damaged += std::string("xx\x47garbage\x47", 11);  // stray sync bytes
        if (i == 12)
            damaged += std::string(300, 'x');
    }
    damaged += Packet(0x100, 'z').substr(0, 100);
    MpegTsChunker chunker(TimePoint::FromMilliseconds(40), 4 * kPacket);
    const auto chunks = Cut(damaged, chunker, 61);
    EXPECT_EQ(Joined(chunks), clean);
    EXPECT_EQ(chunker.SkippedBytes(), 11u + 300u + 100u);
}

// `packet` made the start of a key frame: the unit start and random access
// indicators set. Precondition: it carries a PCR (an adaptation field).
std::string KeyFrame(std::string packet) {
    packet[1] = static_cast<char>(packet[1] | 0x40);
    packet[5] = static_cast<char>(packet[5] | 0x40);
    return packet;
}

// A stream that marks key frames (video every 1.5 s on the clock's stream,
// audio frames marked on another) is cut before the first video key frame
// once a chunk lasts its 1 s, and chunks last from key frame to key frame.
// When the marks stop, a chunk waits no longer than 10 s of clock, and the
// clock paces the next ones; the size limit holds throughout.
TEST(MpegTsChunkerTest, StreamThatMarksKeyFramesIsCutAtThem) {
    std::string stream;
    std::vector<size_t> keyFrames;  // offsets
    for (int i = 0; i < 400; ++i) {
        const int64_t pcr = 2'000'000'000 + int64_t{i} * 100'000'000;  // 100 ms apart
        std::string video = Packet(0x100, 'v', pcr);
        if (i % 15 == 0 && i < 60) {
            keyFrames.push_back(stream.size());
            video = KeyFrame(video);
        }
        stream += video;
        stream += KeyFrame(Packet(0x101, 'a', pcr));  // audio: every frame marked
    }
    MpegTsChunker chunker(TimePoint::FromSeconds(1), 1 << 20);
    const auto chunks = Cut(stream, chunker, 1000);
    EXPECT_EQ(Joined(chunks), stream);
    ASSERT_GE(chunks.size(), 6u);
    size_t offset = chunks[0].payload.size();
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(offset, keyFrames[i]) << "chunk " << i << " does not start at a key frame";
        EXPECT_EQ(chunks[i - 1].duration, TimePoint::FromMilliseconds(1500)) << i;
        offset += chunks[i].payload.size();
    }
    // After the last mark (packet 45): 10 s of clock, then 1 s chunks.
    EXPECT_EQ(chunks[3].duration, TimePoint::FromSeconds(10));
    EXPECT_EQ(chunks[4].duration, TimePoint::FromSeconds(1));

    MpegTsChunker small(TimePoint::FromSeconds(1), 20 * kPacket);
    for (const SourceChunk& c : Cut(stream, small, 1000))
        EXPECT_LE(c.payload.size(), 20 * kPacket);

    // The last chunk, cut by the end of the stream 1.4 s after its key
    // frame, lasts as long as its clock ran, not the nominal second.
    std::string ending;
    for (int i = 0; i < 45; ++i) {
        const std::string video = Packet(0x100, 'v', int64_t{i} * 100'000'000);
        ending += i % 15 == 0 ? KeyFrame(video) : video;
    }
    MpegTsChunker last(TimePoint::FromSeconds(1), 1 << 20);
    const auto ended = Cut(ending, last, 1000);
    ASSERT_EQ(ended.size(), 3u);
    EXPECT_EQ(ended[2].duration, TimePoint::FromMilliseconds(1400));
}

TEST(MpegTsChunkerTest, DetectsTransportStreams) {
    const std::string two = Packet(1, 'a') + Packet(1, 'b');
    EXPECT_TRUE(MpegTsChunker::LooksLikeMpegTs(two));
    EXPECT_TRUE(MpegTsChunker::LooksLikeMpegTs(two + "\x47partial"));
    EXPECT_FALSE(MpegTsChunker::LooksLikeMpegTs(Packet(1, 'a')));
    EXPECT_FALSE(MpegTsChunker::LooksLikeMpegTs(two + "x"));
    EXPECT_FALSE(MpegTsChunker::LooksLikeMpegTs(std::string(400, 0x47 + 1)));
}

}  // namespace
}  // namespace loopstore::cli
