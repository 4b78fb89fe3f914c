// Recorded ranges and chunk lists read from a track's index: pauses inside
// and between blocks, merging, windows, recycling, a restart.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Storage/Indexes/Ram/TrackTimelineReader.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"

namespace loopstore::test {
namespace {

using Moreld::Time::TimePoint;
using Range = RecordedRanges::Range;

// Four chunks of 300 bytes fill a file.
constexpr unsigned long kChunkBytes = 300;
constexpr unsigned long kFileBytes = 16 + 4 * kChunkBytes;

std::string Text(const std::vector<Range>& ranges) {
    std::string text;
    for (const Range& r : ranges) {
        text += "[" + std::to_string(r.start.ToNanoseconds() / 1e9).substr(0, 4) + "," +
                std::to_string(r.end.ToNanoseconds() / 1e9).substr(0, 4) + ")";
    }
    return text;
}

std::string Ranges(const LoopRecordingFileManager& m, double from, double to, double gap) {
    return Text(TrackTimelineReader(m).GetRecordedRanges(Sec(from), Sec(to), Sec(gap)));
}

// "timepoint/sequence ..." of the listed chunks, then "+" when truncated.
std::string Chunks(const LoopRecordingFileManager& m, double from, double to, size_t limit) {
    bool truncated = false;
    std::string text;
    for (const auto& span : TrackTimelineReader(m).ListChunks(Sec(from), Sec(to), limit, truncated))
        text += std::to_string(span.timepoint.ToNanoseconds() / 100'000'000) + "/" +
                std::to_string(span.sequence) + " ";
    return text + (truncated ? "+" : "");
}

// A window, maxGap (s) or limit, and the answer expected.
struct Query {
    double from;
    double to;
    double parameter;
    const char* expected;
};

// Blocks (files) of four chunks of 1 s: [0 1 2 | 5], [6 7 8 | 20], [21 22 |
// 23.5 24.5]: pauses of 2 s and 11 s inside blocks, 0.5 s inside the third,
// none across the two block boundaries.
void WriteThreeBlocks(LoopRecordingFileManager& m, const std::string& root) {
    ChunkWriter writer(m, root);
    for (double t : {0.0, 1.0, 2.0, 5.0, 6.0, 7.0, 8.0, 20.0, 21.0, 22.0, 23.5, 24.5})
        writer.Write(Sec(t), Sec(1), kChunkBytes);
}

// Every query the tests below check, as one text, to compare the index
// before and after a restart.
std::string AllAnswers(const LoopRecordingFileManager& m) {
    std::string text;
    for (double gap : {0.0, 0.5, 2.0, 11.0}) {
        text += Ranges(m, -100, 100, gap) + Ranges(m, 7, 8, gap) + Ranges(m, 22, 22.5, gap) +
                Ranges(m, 0.5, 0.6, gap) + ";";
    }
    return text + Chunks(m, 2.5, 6.5, 10) + Chunks(m, -1, 100, 100);
}

TEST(TrackTimeline, RangesFollowPausesInsideAndBetweenBlocksAcrossRecyclingAndRestart) {
    TrackFixture track(3, 4, kFileBytes);
    auto m = track.NewManagerWithFiles();
    WriteThreeBlocks(*m, track.Root());
    // Each block keeps its one pause, also in a copy.
    const auto blocks = m->GetBlocks();
    ASSERT_EQ(blocks.size(), 3u);
    for (const auto& [key, block] : blocks) {
        FileSystem::Block copy(BlockConfiguration(1, 0));
        copy = block;
        ASSERT_EQ(copy.GetGaps().Count(), 1u) << key;
    }
    EXPECT_EQ(blocks.begin()->second.GetGaps().Position(0), 3u);

    // Merging: a pause equal to maxGap merges, a longer one does not;
    // contiguous blocks always merge. Windows: ranges come whole, reaching
    // into blocks before and after the window; ends are exclusive.
    const Query ranges[] = {
        {-100, 100, 0, "[0.00,3.00)[5.00,9.00)[20.0,23.0)[23.5,25.5)"},
        {-100, 100, 0.5, "[0.00,3.00)[5.00,9.00)[20.0,25.5)"},
        {-100, 100, 2, "[0.00,9.00)[20.0,25.5)"},
        {-100, 100, 11, "[0.00,25.5)"},
        {7, 8, 0, "[5.00,9.00)"},
        {22, 22.5, 0.5, "[20.0,25.5)"},
        {0.5, 0.6, 11, "[0.00,25.5)"},
        {2.5, 5.5, 0, "[0.00,3.00)[5.00,9.00)"},
        {3, 5, 0, ""},
        {3, 5, 2, "[0.00,9.00)"},
        {25.5, 30, 100, ""},
        {-10, 0, 100, ""},
        {7, 7, 0, ""},
    };
    for (const Query& q : ranges)
        EXPECT_EQ(Ranges(*m, q.from, q.to, q.parameter), q.expected) << q.from << " " << q.to;

    // Chunk lists: a chunk holding `from` counts, one ending at it does not;
    // the limit cuts, and says so only when more chunks remain.
    const Query lists[] = {
        {2.5, 6.5, 10, "20/2 50/3 60/4 "},
        {2.5, 6.5, 3, "20/2 50/3 60/4 "},
        {2.5, 6.5, 2, "20/2 50/3 +"},
        {3, 5.5, 10, "50/3 "},
        {3, 5, 10, ""},
        {8.5, 21, 1, "80/6 +"},
        {24.6, 24.6, 10, ""},
    };
    for (const Query& q : lists) {
        EXPECT_EQ(Chunks(*m, q.from, q.to, static_cast<size_t>(q.parameter)), q.expected)
            << q.from << " " << q.to;
    }

    // A restart rebuilds the pauses from the database: same answers.
    const std::string before = AllAnswers(*m);
    m.reset();
    m = track.OpenManager();
    EXPECT_EQ(AllAnswers(*m), before);

    // Recycling: the fifth block takes the first one's file; its range
    // goes, and the range it ended in now starts at the second block.
    {
        ChunkWriter writer(*m, track.Root());
        for (int t = 30; t < 38; ++t)
            writer.Write(Sec(t), Sec(1), kChunkBytes);
    }
    EXPECT_EQ(Ranges(*m, -100, 100, 0), "[6.00,9.00)[20.0,23.0)[23.5,25.5)[30.0,38.0)");
    EXPECT_EQ(Ranges(*m, -100, 100, 11), "[6.00,38.0)");
    EXPECT_EQ(Chunks(*m, -1, 6.5, 10), "60/4 ");
    const TrackActivity& counters = m->GetActivity();
    EXPECT_EQ(counters.GetChunks(), 8u);
    EXPECT_EQ(counters.GetBytes(), 8 * kChunkBytes);
    EXPECT_EQ(counters.GetRecycledFiles(), 1u);
    auto extent = TrackTimelineReader(*m).GetExtent();
    ASSERT_TRUE(extent.has_value());
    EXPECT_EQ(extent->oldest, Sec(6));
    EXPECT_EQ(extent->newest, Sec(38));
}

}  // namespace
}  // namespace loopstore::test
