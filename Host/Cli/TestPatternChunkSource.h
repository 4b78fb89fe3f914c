#pragma once

#include <atomic>
#include <cstdint>

#include "Host/Cli/IChunkSource.h"
#include "Host/Media/TestPatternEncoder.h"

namespace loopstore::cli {

// A generated video stream: test pattern chunks of one group of pictures
// each (TestPatternEncoder), as fast as they are asked for and drawn for the
// time point they will be stored at; or, paced, one chunk each time the wall
// clock has passed its end, drawn for the wall clock, as a camera delivers
// them.
//
// Owned and called by one recorder thread; `stop` may be set from any thread.
class TestPatternChunkSource : public IChunkSource {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    struct Options {
        TimePoint chunkDuration = TimePoint::FromSeconds(1);
        // The stream ends after this much (zero: no end) ...
        TimePoint totalDuration;
        // ... or after the chunk that brings it to this many bytes (zero: no end).
        uint64_t totalBytes = 0;
        bool paced = false;
        bool snow = false;  // see TestPatternEncoder::Options
        // Ends a paced stream within a tenth of a second; may be null.
        const std::atomic<bool>* stop = nullptr;
    };

    TestPatternChunkSource(int64_t trackId, Options options);

    bool Next(TimePoint start, SourceChunk& out) override;

  private:
    bool Ended() const;
    // Sleeps until the wall clock passes `due`; false when stopped first.
    bool WaitUntil(TimePoint due) const;

    const int64_t trackId_;
    const Options options_;
    const media::TestPatternEncoder encoder_;
    TimePoint produced_;
    uint64_t bytes_ = 0;
    TimePoint nextDue_;
};

}  // namespace loopstore::cli
