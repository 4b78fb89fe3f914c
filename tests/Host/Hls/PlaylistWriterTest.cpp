#include "Host/Hls/PlaylistWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Host/Hls/LivePlaylist.h"

namespace loopstore::hls {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
// 2026-11-22T10:00:00Z
constexpr int64_t kBase = 1'795'341'600 * kSecond;

void Add(Protocol::ChunkSpans& spans, int64_t start, int64_t duration, uint64_t sequence) {
    Protocol::ChunkSpan& span = *spans.add_chunks();
    span.mutable_timepoint()->set_nanoseconds(start);
    span.mutable_duration()->set_nanoseconds(duration);
    span.set_size(1000);
    span.set_sequence(sequence);
}

// A range with clock jitter (not a gap), a long chunk and a hole: one
// discontinuity, with the wall time of the chunk after it, and a target
// duration that covers the longest chunk.
TEST(PlaylistWriterTest, VodMarksHolesAndDatesEachRun) {
    Protocol::ChunkSpans spans;
    Add(spans, kBase, kSecond, 41);
    Add(spans, kBase + kSecond + 2 * kMs, 2400 * kMs, 42);  // 2 ms late: jitter
    Add(spans, kBase + 20 * kSecond, 1500 * kMs, 43);       // after a hole
    EXPECT_EQ(PlaylistWriter::Vod(spans),
              "#EXTM3U\n"
              "#EXT-X-VERSION:3\n"
              "#EXT-X-TARGETDURATION:3\n"
              "#EXT-X-MEDIA-SEQUENCE:41\n"
              "#EXT-X-PLAYLIST-TYPE:VOD\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-22T10:00:00.000Z\n"
              "#EXTINF:1.000,\n"
              "segments/1795341600000000000.ts\n"
              "#EXTINF:2.400,\n"
              "segments/1795341601002000000.ts\n"
              "#EXT-X-DISCONTINUITY\n"
              "#EXT-X-PROGRAM-DATE-TIME:2026-11-22T10:00:20.000Z\n"
              "#EXTINF:1.500,\n"
              "segments/1795341620000000000.ts\n"
              "#EXT-X-ENDLIST\n");
    // A chunk just over a whole second still needs the next second.
    Protocol::ChunkSpans exact;
    Add(exact, kBase, 2 * kSecond, 1);
    EXPECT_EQ(PlaylistWriter::TargetDuration(exact), 2);
    Add(exact, kBase + 2 * kSecond, 2 * kSecond + 2 * kMs, 2);
    EXPECT_EQ(PlaylistWriter::TargetDuration(exact), 3);
}

// What a player reads of a live playlist.
struct Loaded {
    int64_t target = 0;
    uint64_t mediaSequence = 0;
    uint64_t discontinuitySequence = 0;
    std::vector<std::string> uris;
    std::vector<uint64_t> discontinuityOf;  // per segment
    int64_t durationMs = 0;
    bool ended = false;
};

int64_t DurationMs(const std::string& extinf) {
    const auto dot = extinf.find('.');
    return std::stoll(extinf.substr(0, dot)) * 1000 + std::stoll(extinf.substr(dot + 1, 3));
}

Loaded Load(const std::string& text) {
    Loaded loaded;
    std::istringstream in(text);
    std::string line;
    uint64_t discontinuity = 0;
    bool first = true;
    while (std::getline(in, line)) {
        const auto value = line.substr(line.find(':') + 1);
        if (line.rfind("#EXT-X-TARGETDURATION:", 0) == 0)
            loaded.target = std::stoll(value);
        else if (line.rfind("#EXT-X-MEDIA-SEQUENCE:", 0) == 0)
            loaded.mediaSequence = std::stoull(value);
        else if (line.rfind("#EXT-X-DISCONTINUITY-SEQUENCE:", 0) == 0)
            discontinuity = loaded.discontinuitySequence = std::stoull(value);
        else if (line == "#EXT-X-DISCONTINUITY")
            ++discontinuity;
        else if (line.rfind("#EXTINF:", 0) == 0)
            loaded.durationMs += DurationMs(value);
        else if (line == "#EXT-X-ENDLIST")
            loaded.ended = true;
        else if (!line.empty() && line[0] != '#') {
            loaded.uris.push_back(line);
            loaded.discontinuityOf.push_back(discontinuity);
        }
        if (line == "#EXT-X-DISCONTINUITY" && first)
            ADD_FAILURE() << "a discontinuity before the first segment";
        if (!line.empty() && line[0] != '#')
            first = false;
    }
    return loaded;
}

// A camera records 1 s chunks, pauses twice and loops: at every reload the
// window ends at the newest chunk, lasts at least three target durations and
// no chunk more than that needs, its media sequence is its first chunk's,
// and a segment seen in two reloads keeps its discontinuity number (which
// never goes back), so that a player can follow the stream.
TEST(PlaylistWriterTest, LiveWindowSlidesWithTheTrackAndKeepsItsNumbers) {
    LivePlaylist live;
    Protocol::ChunkSpans track;  // what the index holds
    std::map<std::string, uint64_t> numberOf;
    uint64_t lastFirstNumber = 0;
    int64_t at = kBase;
    for (uint64_t sequence = 100; sequence < 160; ++sequence) {
        if (sequence == 120 || sequence == 123)
            at += 30 * kSecond;  // the camera paused
        Add(track, at, kSecond, sequence);
        at += kSecond;
        if (track.chunks_size() > 8)  // recycled, oldest first
            track.mutable_chunks()->DeleteSubrange(0, 1);

        const Loaded loaded = Load(live.Write(7, track));
        ASSERT_FALSE(loaded.ended);
        EXPECT_EQ(loaded.target, 1);
        const size_t expected = std::min(3, track.chunks_size());
        ASSERT_EQ(loaded.uris.size(), expected) << "at chunk " << sequence;
        EXPECT_EQ(loaded.uris.back(), "segments/" + std::to_string(at - kSecond) + ".ts");
        EXPECT_EQ(loaded.mediaSequence, sequence + 1 - expected);
        EXPECT_GE(loaded.discontinuitySequence, lastFirstNumber);
        lastFirstNumber = loaded.discontinuitySequence;
        for (size_t i = 0; i < loaded.uris.size(); ++i) {
            const auto [it, fresh] = numberOf.emplace(loaded.uris[i], loaded.discontinuityOf[i]);
            EXPECT_EQ(it->second, loaded.discontinuityOf[i]) << loaded.uris[i];
        }
    }
    // Two pauses: the numbers rose by two over the recording.
    EXPECT_EQ(lastFirstNumber, 2u);
    // Another track is numbered on its own.
    EXPECT_EQ(Load(live.Write(8, track)).discontinuitySequence, 0u);

    // Longer chunks: three target durations, fewest chunks.
    Protocol::ChunkSpans slow;
    for (uint64_t i = 0; i < 10; ++i)
        Add(slow, kBase + static_cast<int64_t>(i) * 2500 * kMs, 2500 * kMs, i);
    const Loaded loaded = Load(live.Write(9, slow));
    EXPECT_EQ(loaded.target, 3);
    EXPECT_EQ(loaded.uris.size(), 4u);  // 10 s >= 9 s > 7.5 s
    EXPECT_EQ(loaded.mediaSequence, 6u);
    // A track shorter than the window is listed whole.
    Protocol::ChunkSpans young;
    Add(young, kBase, kSecond, 0);
    EXPECT_EQ(Load(live.Write(10, young)).uris.size(), 1u);
}

// A player that comes back after the window moved past everything it saw
// gets a new discontinuity number: it must not join the two.
TEST(PlaylistWriterTest, LiveWindowThatSkippedAheadStartsANewNumber) {
    LivePlaylist live;
    Protocol::ChunkSpans before, after;
    for (uint64_t i = 0; i < 3; ++i)
        Add(before, kBase + static_cast<int64_t>(i) * kSecond, kSecond, i);
    for (uint64_t i = 10; i < 13; ++i)
        Add(after, kBase + static_cast<int64_t>(i) * kSecond, kSecond, i);
    EXPECT_EQ(Load(live.Write(1, before)).discontinuitySequence, 0u);
    EXPECT_EQ(Load(live.Write(1, after)).discontinuitySequence, 1u);
    EXPECT_EQ(Load(live.Write(1, after)).discontinuitySequence, 1u);
}

}  // namespace
}  // namespace loopstore::hls
