#pragma once

#include <atomic>

#include "Platform/Time/TimePoint.h"

// The running figures of one track's index: its sizes, its ends and the
// counters stamped into every new chunk.
//
// A value owned by the track index. The atomics are written under the
// index's locks and read anywhere without one; chunkCounter is guarded by
// the index lock.
struct TrackCounters {
    using TimePoint = Moreld::Time::TimePoint;

    // Sum of the sizes of the track's files.
    std::atomic<unsigned long> maxTrackSize{0};
    // Payload bytes of the indexed chunks.
    std::atomic<unsigned long> trackSize{0};
    // The largest file the track was given; 0 before any file.
    std::atomic<unsigned long> fileSize{0};
    // The oldest recyclable block's key; TimePoint() when none.
    std::atomic<TimePoint> beginningOfTrack{TimePoint()};
    // End of the last chunk appended: a chunk starting before it is refused.
    std::atomic<TimePoint> endOfTrack{TimePoint()};
    // Sum of the durations appended since the track (re)started.
    std::atomic<TimePoint> accumulatedDuration{TimePoint()};
    // Chunks appended; stamped into each new chunk as its sequence number.
    long chunkCounter = 0;
};
