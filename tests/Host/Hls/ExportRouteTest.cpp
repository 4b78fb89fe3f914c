#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/Host/Hls/PlaybackStore.h"
#include "tests/Support/TempDir.h"

namespace loopstore::test {
namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
// 2026-11-22T10:00:00Z
constexpr int64_t kBase = 1'795'341'600 * kSecond;

std::string Ms(int64_t ns) {
    return std::to_string(ns / kMs);
}

// Temporary files of downloads left behind.
int DownloadFilesLeft() {
    int n = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
        n += entry.path().filename().string().rfind("loopstore-export-", 0) == 0;
    return n;
}

// Drains a streamed answer.
std::string Drain(const host::HttpResponse& response) {
    std::string body = response.body, piece;
    while (response.stream && response.stream(piece))
        body += piece;
    return body;
}

// The output of an ffprobe command on `path`: what it prints, and its errors.
struct Probe {
    std::string out;
    std::string errors;
};
Probe RunProbe(const TempDir& dir, const std::string& arguments, const std::string& path) {
    const std::string out = dir / "probe.txt", errors = dir / "errors.txt";
    EXPECT_EQ(
        RunShell("ffprobe -v error " + arguments + " " + path + " > " + out + " 2> " + errors), 0);
    return {ReadFile(out), ReadFile(errors)};
}

// A download across a pause in the recording, starting inside a chunk: it
// starts at the key frame before the asked start, the pause is closed up,
// the file plays cleanly with the duration of what was kept, and nothing is
// left in the temporary directory. Ranges without chunks are 404, bad
// ranges 400.
TEST(ExportRouteTest, DownloadOfARangeAcrossAPausePlays) {
    if (!HasProgram("ffmpeg") || !HasProgram("ffprobe"))
        GTEST_SKIP() << "ffmpeg and ffprobe are not installed";
    TempDir dir;
    const std::vector<cli::SourceChunk> chunks = CameraChunks(dir, 6);
    ASSERT_GE(chunks.size(), 5u);
    PlaybackStore store;
    const std::vector<int64_t> starts = store.Record(chunks, kBase, 3, 10 * kSecond);
    const int left = DownloadFilesLeft();

    const int64_t from = starts[1] + 500 * kMs;
    const host::HttpResponse clip =
        store.Get("/api/tracks/1/export.mp4?from=" + Ms(from) + "&to=" + Ms(starts[4] + 500 * kMs));
    ASSERT_EQ(clip.status, 200) << clip.body;
    EXPECT_EQ(clip.contentType, "video/mp4");
    EXPECT_EQ(Header(clip, "Content-Disposition"),
              "attachment; filename=\"track-1-" + Ms(from) + ".mp4\"");
    const std::string path = dir / "clip.mp4";
    WriteFile(path, Drain(clip));
    EXPECT_EQ(DownloadFilesLeft(), left);

    // Chunks 1 and 2 whole (50 frames), the pause closed up, chunk 3 and
    // half of 4 (37): 3.5 s, give or take the frames reordered at the cut.
    const Probe duration = RunProbe(dir, "-show_entries format=duration -of csv=p=0", path);
    EXPECT_EQ(duration.errors, "");
    EXPECT_NEAR(std::atof(duration.out.c_str()), 3.6, 0.25) << duration.out;
    const Probe frames =
        RunProbe(dir, "-count_frames -show_entries stream=nb_read_frames -of csv=p=0", path);
    EXPECT_EQ(frames.errors, "");
    EXPECT_NEAR(std::atoi(frames.out.c_str()), 87, 3) << frames.out;

    const std::pair<std::string, int> refused[] = {
        {"/api/tracks/1/export.mp4?from=" + Ms(starts[3] - 5 * kSecond) +
             "&to=" + Ms(starts[3] - kSecond),
         404},  // in the pause
        {"/api/tracks/9/export.mp4?from=" + Ms(kBase) + "&to=" + Ms(starts[2]), 404},
        {"/api/tracks/1/export.mp4?from=" + Ms(kBase), 400},
        {"/api/tracks/1/export.mp4?from=" + Ms(starts[2]) + "&to=" + Ms(kBase), 400},
        {"/api/tracks/1/export.mp4?from=" + Ms(kBase) + "&to=" + Ms(kBase + 25 * 3600 * kSecond),
         400},
    };
    for (const auto& [target, status] : refused) {
        const host::HttpResponse response = store.Get(target);
        EXPECT_EQ(response.status, status) << target << ": " << response.body;
    }
    EXPECT_EQ(DownloadFilesLeft(), left);
}

}  // namespace
}  // namespace loopstore::test
