#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "Storage/Indexes/Ram/RecordedRanges.h"

// What a track holds over time, read from its RAM index alone (no chunk, no
// database): recorded ranges, the chunks of a window, the oldest and newest
// instants. Each answer copies what it needs under the index's shared lock
// and is built after the lock is released, so a writer waits for a copy at
// most.
//
// Refers to the manager (not owned), which must outlive the reader. Safe
// from any thread, as the manager's readers are.
class TrackTimelineReader {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // One chunk as a timeline sees it.
    struct Span {
        TimePoint timepoint;
        TimePoint duration;
        unsigned long size = 0;
        unsigned long sequence = 0;
    };

    // The oldest chunk's start and the newest chunk's end.
    struct Extent {
        TimePoint oldest;
        TimePoint newest;
    };

    explicit TrackTimelineReader(const LoopRecordingFileManager& manager) : manager_(manager) {}

    // See RecordedRanges. Preconditions: from <= to, maxGap >= 0.
    std::vector<RecordedRanges::Range> GetRecordedRanges(const TimePoint& from, const TimePoint& to,
                                                         const TimePoint& maxGap) const;
    // The chunks overlapping [from, to), ascending, at most `limit` (> 0);
    // `truncated` tells whether more overlap the window. An empty window
    // (from == to) holds none.
    std::vector<Span> ListChunks(const TimePoint& from, const TimePoint& to, size_t limit,
                                 bool& truncated) const;
    // Nothing when the track holds no chunk.
    std::optional<Extent> GetExtent() const;

  private:
    using Blocks = std::map<TimePoint, FileSystem::Block>;

    // Appends the block's chunks overlapping [from, to) to `spans` until it
    // holds `wanted`.
    static void CopySpans(const FileSystem::Block& block, const TimePoint& from,
                          const TimePoint& to, size_t wanted, std::vector<Span>& spans);

    const LoopRecordingFileManager& manager_;
};
