#pragma once

#include <cstdint>
#include <functional>

#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

// Gives live chunks (a pipe, a camera) their time points from the wall clock
// at arrival, smoothed by the stream's own clock.
//
// A chunk that arrives `now` and lasts `d` by the stream's clock began at
// about now - d. While the previous chunk's end lies within `tolerance` of
// that, the chunk simply follows it, so that jitter in the arrivals does not
// show in the stored durations. When the stream's clock has fallen behind by
// more than `tolerance` (the input paused, or the two clocks drift apart) the
// stamps jump forward to the wall clock: the track gets a gap, as the input
// had one. Stamps never go back (before the previous chunk or the track's
// end) and never into the future: a chunk that would end after `now` (the
// input arrives faster than real time) is shortened to end at `now`, and
// keeps at least 1 ns.
//
// The clock is a seam for tests. Not thread-safe: one stamper per recording.
class LiveStamper {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Clock = std::function<TimePoint()>;

    struct Stamp {
        TimePoint at;
        TimePoint duration;
    };

    // `trackEnd` is the end of what the track holds, -1 ns when it is empty.
    // Throws CliError naming that end when it lies after clock(): live stamps
    // cannot continue a track that a recording faster than real time left in
    // the future.
    LiveStamper(int64_t trackId, TimePoint trackEnd, TimePoint tolerance, Clock clock);

    // Stamps the next chunk, which lasts `streamDuration` by the stream's
    // clock and has just arrived.
    Stamp Next(TimePoint streamDuration);

    // Times the stamps jumped to the wall clock (the first chunk included).
    uint64_t Anchors() const { return anchors_; }
    // Chunks shortened because they would have ended in the future.
    uint64_t Shortened() const { return shortened_; }

  private:
    const TimePoint tolerance_;
    const Clock clock_;
    TimePoint end_;  // of the previous chunk, or of the track
    bool started_ = false;
    uint64_t anchors_ = 0;
    uint64_t shortened_ = 0;
};

}  // namespace loopstore::cli
