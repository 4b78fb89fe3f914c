#include "Storage/Indexes/Ram/RecordedRanges.h"

#include <iterator>

using Moreld::Time::TimePoint;

namespace {

TimePoint EndOf(const FileSystem::Chunk& chunk) {
    return chunk.timepoint + chunk.duration;
}

}  // namespace

RecordedRanges::RecordedRanges(const TimePoint& from, const TimePoint& to, const TimePoint& maxGap)
    : from_(from), to_(to), maxGap_(maxGap) {}

void RecordedRanges::Collect(const Blocks& blocks) {
    runs_.clear();
    if (!(from_ < to_))
        return;  // an empty window overlaps nothing
    BlockIt first = blocks.upper_bound(from_);
    if (first != blocks.begin())
        --first;
    std::vector<Range> forward = CollectForward(blocks, first);
    if (forward.empty())
        return;
    // Earlier blocks matter only to a first range that reaches the window.
    if (FirstRangeReachesWindow(forward)) {
        std::vector<Range> backward = CollectBackward(blocks, first, forward.front().start);
        runs_.assign(backward.rbegin(), backward.rend());
    }
    runs_.insert(runs_.end(), forward.begin(), forward.end());
}

std::vector<RecordedRanges::Range> RecordedRanges::Build() const {
    std::vector<Range> merged;
    for (const Range& run : runs_) {
        if (!merged.empty() && Merges(merged.back().end, run.start)) {
            merged.back().end = run.end;
        } else {
            merged.push_back(run);
        }
    }
    std::vector<Range> overlapping;
    for (const Range& range : merged) {
        if (range.start < to_ && range.end > from_)
            overlapping.push_back(range);
    }
    return overlapping;
}

std::vector<RecordedRanges::Range> RecordedRanges::CollectForward(const Blocks& blocks,
                                                                  BlockIt first) const {
    std::vector<Range> runs;
    BlockIt it = first;
    for (; it != blocks.end() && it->first < to_; ++it)
        AppendRuns(it->second, runs);
    for (; it != blocks.end() && !runs.empty(); ++it) {
        const FileSystem::Block& block = it->second;
        if (block.Empty())
            continue;
        if (!Merges(runs.back().end, block.GetStartTime()))
            break;
        AppendRuns(block, runs);
        if (HasLongPause(block))
            break;
    }
    return runs;
}

std::vector<RecordedRanges::Range> RecordedRanges::CollectBackward(const Blocks& blocks,
                                                                   BlockIt first,
                                                                   TimePoint start) const {
    std::vector<Range> reversed;
    std::vector<Range> runs;
    for (BlockIt it = first; it != blocks.begin();) {
        --it;
        const FileSystem::Block& block = it->second;
        if (block.Empty())
            continue;
        if (!Merges(block.GetEndTime(), start))
            break;
        runs.clear();
        AppendRuns(block, runs);
        reversed.insert(reversed.end(), runs.rbegin(), runs.rend());
        start = runs.front().start;
        if (HasLongPause(block))
            break;
    }
    return reversed;
}

bool RecordedRanges::FirstRangeReachesWindow(const std::vector<Range>& runs) const {
    TimePoint end = runs.front().end;
    for (size_t i = 1; i < runs.size() && Merges(end, runs[i].start); ++i)
        end = runs[i].end;
    return end > from_;
}

bool RecordedRanges::Merges(const TimePoint& end, const TimePoint& nextStart) const {
    return nextStart - end <= maxGap_;
}

bool RecordedRanges::HasLongPause(const FileSystem::Block& block) const {
    const FileSystem::Block::ChunkMap& chunks = block.GetChunks();
    const FileSystem::BlockGaps& gaps = block.GetGaps();
    for (size_t i = 0; i < gaps.Count(); ++i) {
        const size_t position = gaps.Position(i);
        if (!Merges(EndOf(chunks.nth(position - 1)->second), chunks.nth(position)->first))
            return true;
    }
    return false;
}

// A block's runs end where a pause starts: with no pause, the whole block is
// one run, its start and end read from the block itself. Chunks are touched
// only around pauses: over a day of blocks, reading each block's chunks
// would cost a cache miss or two per block.
void RecordedRanges::AppendRuns(const FileSystem::Block& block, std::vector<Range>& runs) {
    if (block.Empty())
        return;
    const FileSystem::Block::ChunkMap& chunks = block.GetChunks();
    const FileSystem::BlockGaps& gaps = block.GetGaps();
    TimePoint start = block.GetStartTime();
    for (size_t i = 0; i < gaps.Count(); ++i) {
        const size_t position = gaps.Position(i);
        runs.push_back({start, EndOf(chunks.nth(position - 1)->second)});
        start = chunks.nth(position)->first;
    }
    runs.push_back({start, block.GetEndTime()});
}
