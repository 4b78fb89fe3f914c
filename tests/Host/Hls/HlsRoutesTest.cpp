#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/packet.h>
}

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Host/Media/Demuxer.h"
#include "Host/Media/SegmentRemuxer.h"
#include "tests/Host/Hls/PlaybackStore.h"
#include "tests/Support/TempDir.h"

namespace loopstore::test {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
// 2026-11-22T10:00:00Z
constexpr int64_t kBase = 1'795'341'600 * kSecond;

std::vector<std::string> Uris(const std::string& playlist) {
    std::vector<std::string> uris;
    std::istringstream in(playlist);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#')
            uris.push_back(line);
    return uris;
}

int Count(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

std::string Ms(int64_t ns) {
    return std::to_string(ns / kMs);
}

class HlsRoutesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!HasProgram("ffmpeg") || !HasProgram("ffprobe"))
            GTEST_SKIP() << "ffmpeg and ffprobe are not installed";
    }
    TempDir dir_;
};

// Chunks recorded with a pause between them: the range playlist lists each
// chunk once, marks the pause, and every segment it names is served as the
// stored bytes; the live playlist ends at the newest chunk. What is not there
// is 404, what is malformed 400.
TEST_F(HlsRoutesTest, PlaylistsNameTheStoredChunksAndSegmentsServeThemAsStored) {
    const std::vector<cli::SourceChunk> chunks = CameraChunks(dir_, 6);
    ASSERT_GE(chunks.size(), 5u);
    PlaybackStore store;
    const std::vector<int64_t> starts = store.Record(chunks, kBase, 2, 10 * kSecond);
    const int64_t at = starts.back() + chunks.back().duration.ToNanoseconds();
    const std::string track = "/api/tracks/1/";

    const host::HttpResponse vod =
        store.Get(track + "vod.m3u8?from=" + Ms(kBase) + "&to=" + Ms(at + kSecond));
    ASSERT_EQ(vod.status, 200) << vod.body;
    EXPECT_EQ(vod.contentType, "application/vnd.apple.mpegurl");
    EXPECT_EQ(Count(vod.body, "#EXT-X-DISCONTINUITY\n"), 1);
    EXPECT_EQ(Count(vod.body, "#EXT-X-PROGRAM-DATE-TIME:"), 2);
    EXPECT_EQ(Count(vod.body, "#EXT-X-ENDLIST"), 1);
    const std::vector<std::string> uris = Uris(vod.body);
    ASSERT_EQ(uris.size(), chunks.size());
    for (size_t i = 0; i < uris.size(); ++i) {
        EXPECT_EQ(uris[i], "segments/" + std::to_string(starts[i]) + ".ts");
        const host::HttpResponse segment = store.Get(track + uris[i]);
        ASSERT_EQ(segment.status, 200) << segment.body;
        EXPECT_EQ(segment.contentType, "video/mp2t");
        EXPECT_NE(Header(segment, "Cache-Control").find("immutable"), std::string::npos);
        EXPECT_TRUE(segment.body == chunks[i].payload) << "segment " << i << " changed";
    }

    // ISO 8601 times; a range that begins inside a chunk starts with it.
    const host::HttpResponse part =
        store.Get(track + "vod.m3u8?from=2026-11-22T10:00:00.500Z&to=" + Ms(starts[2] + kMs));
    ASSERT_EQ(part.status, 200) << part.body;
    EXPECT_EQ(Uris(part.body), std::vector<std::string>(uris.begin(), uris.begin() + 3));
    EXPECT_NE(part.body.find("#EXT-X-MEDIA-SEQUENCE:0\n"), std::string::npos);

    const host::HttpResponse live = store.Get(track + "live.m3u8");
    ASSERT_EQ(live.status, 200) << live.body;
    EXPECT_EQ(Header(live, "Cache-Control"), "no-cache");
    EXPECT_EQ(live.body.find("#EXT-X-ENDLIST"), std::string::npos);
    ASSERT_FALSE(Uris(live.body).empty());
    EXPECT_EQ(Uris(live.body).back(), uris.back());

    const std::pair<std::string, int> refused[] = {
        {track + "segments/" + std::to_string(starts[1] + 1) + ".ts", 404},        // inside a chunk
        {track + "segments/" + std::to_string(starts[2] - kSecond) + ".ts", 404},  // in the pause
        {track + "segments/abc.ts", 404},
        {track + "segments/" + std::to_string(starts[0]) + ".mp4", 404},
        {"/api/tracks/9/segments/" + std::to_string(starts[0]) + ".ts", 404},
        {"/api/tracks/9/vod.m3u8", 404},
        {"/api/tracks/9/live.m3u8", 404},
        {track + "vod.m3u8?from=" + Ms(kBase - 100 * kSecond) + "&to=" + Ms(kBase), 404},
        {track + "vod.m3u8?from=" + Ms(starts[2] - 5 * kSecond) + "&to=" + Ms(starts[2]), 404},
        {track + "vod.m3u8?from=yesterday", 400},
        {track + "vod.m3u8?from=" + Ms(at) + "&to=" + Ms(kBase), 400},
        {"/api/tracks/one/live.m3u8", 400},
    };
    for (const auto& [target, status] : refused) {
        const host::HttpResponse response = store.Get(target);
        EXPECT_EQ(response.status, status) << target << ": " << response.body;
        EXPECT_NE(response.body.find("\"error\""), std::string::npos) << target;
    }
}

// A chunk in another container (Matroska here) is served as MPEG-TS that
// plays; without a timeline, playlists are refused but segments still served.
TEST_F(HlsRoutesTest, ChunkInAnotherContainerIsRemuxedToMpegTs) {
    const std::string mkv = dir_ / "chunk.mkv";
    ASSERT_EQ(RunShell("ffmpeg -loglevel error -f lavfi -i testsrc2=size=320x180:rate=25 -t 1 "
                       "-c:v libx264 -g 25 -b:v 150k -f matroska -y " +
                       mkv),
              0);
    PlaybackStore store(false);
    store.Append(kBase, kSecond, ReadFile(mkv));
    store.Append(kBase + kSecond, kSecond, "not a video at all");

    const host::HttpResponse segment =
        store.Get("/api/tracks/1/segments/" + std::to_string(kBase) + ".ts");
    ASSERT_EQ(segment.status, 200) << segment.body;
    EXPECT_TRUE(media::SegmentRemuxer::IsMpegTs(segment.body));
    const std::string ts = dir_ / "segment.ts";
    WriteFile(ts, segment.body);
    const std::string probe = dir_ / "probe.txt", errors = dir_ / "errors.txt";
    ASSERT_EQ(RunShell("ffprobe -v error -select_streams v -show_entries "
                       "stream=codec_name,nb_read_frames -count_frames -of csv=p=0 " +
                       ts + " > " + probe + " 2> " + errors),
              0);
    EXPECT_NE(ReadFile(probe).find("h264,25\n"), std::string::npos) << ReadFile(probe);
    EXPECT_EQ(ReadFile(errors), "");

    const host::HttpResponse garbage =
        store.Get("/api/tracks/1/segments/" + std::to_string(kBase + kSecond) + ".ts");
    EXPECT_EQ(garbage.status, 500);
    EXPECT_NE(garbage.body.find("segment " + std::to_string(kBase + kSecond) + " of track 1"),
              std::string::npos)
        << garbage.body;
    EXPECT_EQ(store.Get("/api/tracks/1/live.m3u8").status, 503);
    EXPECT_EQ(store.Get("/api/tracks/1/vod.m3u8").status, 503);
}

// The first video packet of `chunk` demuxed on its own: whether it is a key
// frame.
bool StartsWithKeyFrame(const std::string& chunk) {
    size_t used = 0;
    media::Demuxer demuxer([&](uint8_t* buffer, size_t size) {
        const size_t n = std::min(size, chunk.size() - used);
        std::memcpy(buffer, chunk.data() + used, n);
        used += n;
        return n;
    });
    media::Packet packet;
    while (demuxer.Read(packet))
        if (packet->stream_index == demuxer.ReferenceStream())
            return (packet->flags & AV_PKT_FLAG_KEY) != 0;
    return false;
}

// A camera stream from ffmpeg (a key frame every 1.2 s) cut for recording
// in chunks of 1 s: every chunk plays on its own from its first frame, and
// lasts from key frame to key frame.
TEST_F(HlsRoutesTest, RecordedChunksStartWithAKeyFrame) {
    const std::vector<cli::SourceChunk> chunks = CameraChunks(dir_, 7, 30);
    ASSERT_GE(chunks.size(), 5u);
    for (size_t i = 0; i < chunks.size(); ++i) {
        EXPECT_TRUE(StartsWithKeyFrame(chunks[i].payload)) << "chunk " << i;
        if (i + 1 < chunks.size()) {  // the last one gets the nominal duration
            EXPECT_NEAR(chunks[i].duration.ToNanoseconds(), 1200 * kMs, 20 * kMs) << "chunk " << i;
        }
    }
}

}  // namespace
}  // namespace loopstore::test
