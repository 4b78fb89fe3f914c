#pragma once

#include <cstdint>

struct AVFrame;

namespace loopstore::media {

// Draws one picture of the test pattern into a YUV 4:2:0 frame: a background
// tinted by the track, a bar that sweeps across once per second, optionally a
// band of snow (noise that costs bytes), and the track id and the UTC clock
// (to the tenth of a second) written as blocks, so that a screenshot tells
// tracks and moments apart.
//
// A pure function of its arguments; the frame's buffers are the caller's.
class TestPatternPicture {
  public:
    TestPatternPicture() = delete;

    // Precondition: `frame` holds allocated YUV420P planes of at least
    // 160x90 pixels.
    static void Draw(AVFrame& frame, int64_t trackId, int64_t unixNanoseconds, bool snow);
};

}  // namespace loopstore::media
