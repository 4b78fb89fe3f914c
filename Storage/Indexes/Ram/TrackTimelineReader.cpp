#include "Storage/Indexes/Ram/TrackTimelineReader.h"

#include <iterator>

using Moreld::Time::TimePoint;

std::vector<RecordedRanges::Range> TrackTimelineReader::GetRecordedRanges(
    const TimePoint& from, const TimePoint& to, const TimePoint& maxGap) const {
    RecordedRanges ranges(from, to, maxGap);
    manager_.VisitBlocks([&](const Blocks& blocks) { ranges.Collect(blocks); });
    return ranges.Build();
}

std::vector<TrackTimelineReader::Span> TrackTimelineReader::ListChunks(const TimePoint& from,
                                                                       const TimePoint& to,
                                                                       size_t limit,
                                                                       bool& truncated) const {
    std::vector<Span> spans;
    truncated = false;
    if (!(from < to))
        return spans;  // an empty window overlaps nothing
    // One more than asked tells whether the answer is cut.
    const size_t wanted = limit + 1;
    manager_.VisitBlocks([&](const Blocks& blocks) {
        auto it = blocks.upper_bound(from);
        if (it != blocks.begin())
            --it;
        for (; it != blocks.end() && it->first < to && spans.size() < wanted; ++it)
            CopySpans(it->second, from, to, wanted, spans);
    });
    truncated = spans.size() > limit;
    if (truncated)
        spans.pop_back();
    return spans;
}

void TrackTimelineReader::CopySpans(const FileSystem::Block& block, const TimePoint& from,
                                    const TimePoint& to, size_t wanted, std::vector<Span>& spans) {
    const FileSystem::Block::ChunkMap& chunks = block.GetChunks();
    auto it = chunks.upper_bound(from);
    // The chunk before may still hold `from`.
    if (it != chunks.begin()) {
        const FileSystem::Chunk& previous = std::prev(it)->second;
        if (previous.timepoint + previous.duration > from)
            --it;
    }
    for (; it != chunks.end() && it->first < to && spans.size() < wanted; ++it) {
        const FileSystem::Chunk& chunk = it->second;
        spans.push_back(
            {chunk.timepoint, chunk.duration, chunk.location.size, chunk.sequenceNumber});
    }
}

std::optional<TrackTimelineReader::Extent> TrackTimelineReader::GetExtent() const {
    std::optional<Extent> extent;
    manager_.VisitBlocks([&](const Blocks& blocks) {
        // A failed append may leave an empty block at either end.
        auto first = blocks.begin();
        while (first != blocks.end() && first->second.Empty())
            ++first;
        if (first == blocks.end())
            return;
        auto last = blocks.rbegin();
        while (last->second.Empty())
            ++last;
        extent = Extent{first->second.GetTcIn(), last->second.GetTcOut()};
    });
    return extent;
}
