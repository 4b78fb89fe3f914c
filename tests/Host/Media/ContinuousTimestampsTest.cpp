#include "Host/Media/ContinuousTimestamps.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace loopstore::media {
namespace {

constexpr int kVideo = 0;
constexpr int kAudio = 1;
constexpr int64_t kFrame = 3600;  // 25 frames a second, 90 kHz

struct Mapped {
    int64_t dts;
    int64_t pts;
};

Mapped Map(ContinuousTimestamps& t, int stream, int64_t dts, int64_t pts) {
    if (t.Jump(stream, dts))
        t.Rejoin(dts);
    t.Map(stream, dts, pts, kFrame);
    return {dts, pts};
}

// A recording that restarts its encoder (clock back), then resumes after a
// long pause (clock ahead): each run follows the last without a hole, in
// both streams, and the order of decoding never goes back.
TEST(ContinuousTimestampsTest, RunsAreJoinedEndToEndAndTimestampsNeverGoBack) {
    ContinuousTimestamps t;
    std::vector<Mapped> video;
    // Run 1 starts at 10 s, B-frames shown two frames after decoding.
    for (int i = 0; i < 25; ++i) {
        video.push_back(Map(t, kVideo, 900000 + i * kFrame, 900000 + (i + 2) * kFrame));
        Map(t, kAudio, 900000 + i * kFrame + 100, 900000 + i * kFrame + 100);
    }
    EXPECT_EQ(video.front().dts, 0);
    EXPECT_EQ(video.front().pts, 2 * kFrame);
    const int64_t endOfFirst = t.End();
    EXPECT_EQ(endOfFirst, 27 * kFrame);

    // Run 2: the clock restarts at 1.4 s. Audio of the new run arrives
    // just before the video that reveals the jump: still one run.
    EXPECT_EQ(*t.Jump(kAudio, 126000 - 50), 126000 - 50 - (900000 + 24 * kFrame + 100));
    t.Rejoin(126000 - 50);
    const Mapped audio = Map(t, kAudio, 126000 - 50, 126000 - 50);
    EXPECT_EQ(audio.dts, endOfFirst);
    EXPECT_FALSE(t.Jump(kVideo, 126000));
    video.push_back(Map(t, kVideo, 126000, 126000 + 2 * kFrame));

    // Run 3: a pause of 5 s is kept, one of 20 s is closed up.
    video.push_back(Map(t, kVideo, 126000 + 5 * 90000, 126000 + 5 * 90000));
    EXPECT_EQ(video.back().dts - video[video.size() - 2].dts, 5 * 90000);
    ASSERT_TRUE(t.Jump(kVideo, 126000 + 25 * 90000));
    video.push_back(Map(t, kVideo, 126000 + 25 * 90000, 126000 + 25 * 90000));
    EXPECT_LT(video.back().dts - video[video.size() - 2].dts, 2 * kFrame);

    for (size_t i = 1; i < video.size(); ++i) {
        EXPECT_GT(video[i].dts, video[i - 1].dts) << i;
        EXPECT_GE(video[i].pts, video[i].dts) << i;
    }
}

}  // namespace
}  // namespace loopstore::media
