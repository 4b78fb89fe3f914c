#pragma once

#include <map>
#include <vector>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/Block.h"

// The recorded ranges of a track that overlap a window [from, to): runs of
// chunks merged while each starts no later than `maxGap` after the previous
// one ended. A range is reported whole, even where it reaches outside the
// window. An empty window (from == to) overlaps nothing.
//
// Built in two steps so that the track index's lock is held only to copy:
// Collect reads the blocks (under the caller's shared lock) and keeps the
// gap-free runs the answer needs; Build merges them, with no lock. Collect
// costs O(blocks visited + pauses in them), never a walk of the chunks: a
// block's pauses are kept by the block (BlockGaps) as chunks are appended.
//
// A plain value for one query; no thread-safety of its own.
class RecordedRanges {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Blocks = std::map<TimePoint, FileSystem::Block>;

    // [start, end) of recorded time.
    struct Range {
        TimePoint start;
        TimePoint end;
        bool operator==(const Range& other) const {
            return start == other.start && end == other.end;
        }
    };

    // Preconditions (checked by the caller): from <= to, maxGap >= 0.
    RecordedRanges(const TimePoint& from, const TimePoint& to, const TimePoint& maxGap);

    // Keeps the runs of `blocks` that the window's ranges are made of: the
    // blocks from the one at or before `from` to the last one starting
    // before `to`, and the neighbours a range running out of the window
    // merges with. Empty blocks (a failed append leaves one) are skipped.
    void Collect(const Blocks& blocks);
    // The ranges overlapping the window, ascending and disjoint.
    std::vector<Range> Build() const;

  private:
    using BlockIt = Blocks::const_iterator;

    // The blocks the window holds, then those the last range runs into.
    std::vector<Range> CollectForward(const Blocks& blocks, BlockIt first) const;
    // The blocks before `first` that the first range reaches back into,
    // newest first, each block's runs in reverse order.
    std::vector<Range> CollectBackward(const Blocks& blocks, BlockIt first, TimePoint start) const;
    // Whether the first range of `runs` (merged) ends after `from`.
    bool FirstRangeReachesWindow(const std::vector<Range>& runs) const;
    bool Merges(const TimePoint& end, const TimePoint& nextStart) const;
    // A pause inside the block longer than maxGap: no range crosses it.
    bool HasLongPause(const FileSystem::Block& block) const;

    static void AppendRuns(const FileSystem::Block& block, std::vector<Range>& runs);

    TimePoint from_;
    TimePoint to_;
    TimePoint maxGap_;
    std::vector<Range> runs_;
};
