// Timeline readers of one track while its writer appends and recycles.
// Work is bounded by counts; all threads start behind a latch.
#include <gtest/gtest.h>

#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Storage/Indexes/Ram/TrackTimelineReader.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"
#include "tests/Support/TestTime.h"

namespace loopstore::test {
namespace {

using Moreld::Time::TimePoint;
using Range = RecordedRanges::Range;
using loopstore::test::Ns;

constexpr long kChunks = 4000;
constexpr int kReaders = 2;
constexpr int kReadsPerReader = 1500;
// 25 chunks of 100 bytes fill a file; six files loop every 150 chunks.
constexpr unsigned long kChunkBytes = 100;
constexpr unsigned long kFileBytes = 16 + 25 * kChunkBytes;
constexpr int64_t kStepNs = 40'000'000;
// Chunks come in groups of ten; the last of a group lasts half a step, so
// a pause of half a step follows each group.
constexpr int64_t kGroupNs = 10 * kStepNs;
constexpr int64_t kGroupEndNs = 9 * kStepNs + kStepNs / 2;

void Append(LoopRecordingFileManager& m, long i) {
    m.Append(Ns(i * kStepNs), Ns(i % 10 == 9 ? kStepNs / 2 : kStepNs), kChunkBytes);
}

// What is wrong with the ranges read with no merging; empty when nothing.
// The oldest group may have lost its head to recycling, the newest may be
// still growing; every other range is a whole group.
std::string CheckGroups(const std::vector<Range>& ranges) {
    for (size_t i = 0; i < ranges.size(); ++i) {
        const int64_t start = ranges[i].start.ToNanoseconds();
        const int64_t end = ranges[i].end.ToNanoseconds();
        if (!(start < end) || start % kStepNs != 0)
            return "bad range at " + std::to_string(i);
        if (i > 0 && !(ranges[i - 1].end < ranges[i].start))
            return "ranges overlap or touch at " + std::to_string(i);
        if (i > 0 && start % kGroupNs != 0)
            return "range " + std::to_string(i) + " does not start a group";
        if (i + 1 < ranges.size() && end % kGroupNs != kGroupEndNs)
            return "range " + std::to_string(i) + " does not end a group";
    }
    return "";
}

// The chunks of a window follow one another, numbered one by one.
std::string CheckSpans(const std::vector<TrackTimelineReader::Span>& spans) {
    for (size_t i = 1; i < spans.size(); ++i) {
        if (spans[i].sequence != spans[i - 1].sequence + 1 ||
            !(spans[i - 1].timepoint < spans[i].timepoint))
            return "chunks out of order at " + std::to_string(i);
    }
    return "";
}

TEST(TrackTimelineConcurrency, ReadersSeeWholeGroupsWhileTheWriterAppendsAndRecycles) {
    TrackFixture track(6, 6, kFileBytes);
    auto m = track.NewManagerWithFiles();
    std::latch start(kReaders + 1);
    std::mutex mutex;
    std::vector<std::string> problems;
    auto report = [&](const std::string& problem) {
        std::lock_guard<std::mutex> lock(mutex);
        problems.push_back(problem);
    };

    std::thread writer([&] {
        start.arrive_and_wait();
        for (long i = 0; i < kChunks; ++i)
            Append(*m, i);
    });
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            start.arrive_and_wait();
            TrackTimelineReader reader(*m);
            const TimePoint far = Ns(kChunks * kStepNs);
            for (int n = 0; n < kReadsPerReader; ++n) {
                std::string problem = CheckGroups(reader.GetRecordedRanges(Ns(0), far, Ns(0)));
                // Merging the pauses leaves one range at most.
                if (reader.GetRecordedRanges(Ns(0), far, Ns(kStepNs / 2)).size() > 1)
                    problem += " pauses not merged";
                bool truncated = false;
                problem += CheckSpans(reader.ListChunks(Ns(0), far, 40, truncated));
                if (!problem.empty())
                    report(problem);
            }
        });
    }
    writer.join();
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_TRUE(problems.empty()) << problems.size() << " problems, first: " << problems.front();

    // The newest 150 chunks remain: the last six files, fifteen groups.
    const auto ranges =
        TrackTimelineReader(*m).GetRecordedRanges(Ns(0), Ns(kChunks * kStepNs), Ns(0));
    ASSERT_EQ(ranges.size(), 15u);
    EXPECT_EQ(ranges.front().start, Ns((kChunks - 150) * kStepNs));
    EXPECT_EQ(CheckGroups(ranges), "");
    EXPECT_EQ(m->GetActivity().GetChunks(), static_cast<uint64_t>(kChunks));
    EXPECT_EQ(m->GetActivity().GetRecycledFiles(), static_cast<uint64_t>(kChunks / 25 - 6));
}

}  // namespace
}  // namespace loopstore::test
