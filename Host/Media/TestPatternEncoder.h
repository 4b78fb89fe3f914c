#pragma once

#include <cstdint>
#include <string>

namespace loopstore::media {

// Makes the test pattern's video: H.264 from libx264 (ultrafast, one
// thread, constant quantizer, so the same arguments give the same bytes),
// one group of pictures at a time, each a complete MPEG transport stream
// that starts with a key frame and plays on its own. Timestamps follow the
// wall-clock time of the pictures (90 kHz, wrapping as MPEG-TS does), so
// consecutive groups play on without a jump.
//
// Holds no state between calls; one thread at a time per object.
class TestPatternEncoder {
  public:
    struct Options {
        int width = 320;
        int height = 180;
        int framesPerSecond = 25;
        int quantizer = 26;  // lower is larger and sharper
        // A band of noise: about 220 KB/s instead of 13 KB/s at 320x180.
        bool snow = false;
    };

    explicit TestPatternEncoder(Options options);
    TestPatternEncoder() : TestPatternEncoder(Options{}) {}

    // The MPEG-TS bytes of `frames` pictures of track `trackId`, the first
    // shown at `startNanoseconds` (Unix time). Throws MediaError when libx264
    // is missing or refuses.
    std::string EncodeGroup(int64_t trackId, int64_t startNanoseconds, int frames) const;

    // Frames in `nanoseconds`, at least one.
    int FramesIn(int64_t nanoseconds) const;
    int64_t FrameNanoseconds() const { return 1'000'000'000 / options_.framesPerSecond; }

  private:
    Options options_;
};

}  // namespace loopstore::media
