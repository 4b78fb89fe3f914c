// The timeline service as the host sees it: ranges, chunk lists and
// statistics of tracks written through the writers, across a restart.
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "tests/Storage/Server/Factories/StorageFixture.h"
#include "tests/Support/TestTime.h"

using loopstore::test::kSecond;

namespace loopstore::test {
namespace {

// Three such chunks fill a file of the fixture.
constexpr size_t kPayload = 20000;

Protocol::TimePoint Ns(int64_t ns) {
    Protocol::TimePoint tp;
    tp.set_nanoseconds(ns);
    return tp;
}

void Write(MoreldStorageApi::ITrackWriter& writer, std::initializer_list<int> seconds) {
    for (int s : seconds) {
        Protocol::Chunk chunk;
        *chunk.mutable_timepoint() = Ns(s * kSecond);
        *chunk.mutable_duration() = Ns(kSecond);
        chunk.set_data(std::string(kPayload, static_cast<char>('a' + s % 26)));
        writer.Append(chunk);
    }
}

// "[start,end)" in whole seconds.
std::string Ranges(Storage& s, long track, int64_t gapNs) {
    Protocol::TimeRanges ranges;
    s.Timeline().GetRecordedRanges(track, Ns(-100 * kSecond), Ns(100 * kSecond), Ns(gapNs), ranges);
    std::string text;
    for (const Protocol::TimeRange& r : ranges.ranges())
        text += "[" + std::to_string(r.start().nanoseconds() / kSecond) + "," +
                std::to_string(r.end().nanoseconds() / kSecond) + ")";
    return text;
}

Protocol::TrackStatisticsList Statistics(Storage& s, std::initializer_list<long> ids) {
    Protocol::Ids request;
    for (long id : ids)
        request.add_ids(id);
    Protocol::TrackStatisticsList list;
    s.Timeline().GetTrackStatistics(request, list);
    return list;
}

TEST(TrackTimelineService, AnswersFromTheIndexCountsSinceOpeningAndRefusesBadRequests) {
    Storage s(8);
    ASSERT_EQ(s.CreateTrack(1, 4), 1);
    ASSERT_EQ(s.CreateTrack(2, 2), 2);
    long protection = 0;
    {
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(s.Writers().Create(1));
        // Files: [0 1 2] [3 4 5] [10 11 12] [13 14], then [20 21 22] takes
        // the first file back.
        Write(*writer, {0, 1, 2, 3, 4, 5, 10, 11, 12, 13, 14, 20, 21, 22});
        // The writer's cache still holds chunks of track 1, none of track 2.
        Protocol::TrackStatisticsList live = Statistics(s, {2, 99, 1, 2});
        ASSERT_EQ(live.tracks_size(), 2);
        EXPECT_EQ(live.tracks(0).track_id(), 1);
        EXPECT_GT(live.tracks(0).cache_bytes(), 0u);
        EXPECT_EQ(live.tracks(1).cache_bytes(), 0u);
    }
    // The writer is gone: every chunk reached the index.
    s.Tracks().Protect(1, Ns(3 * kSecond), Ns(kSecond), protection);
    EXPECT_EQ(Ranges(s, 1, 0), "[3,6)[10,15)[20,23)");
    EXPECT_EQ(Ranges(s, 1, 5 * kSecond), "[3,23)");
    EXPECT_EQ(Ranges(s, 2, 0), "");

    Protocol::ChunkSpans spans;
    s.Timeline().ListChunks(1, Ns(4500'000'000), Ns(11 * kSecond), 2, spans);
    ASSERT_EQ(spans.chunks_size(), 2);
    EXPECT_TRUE(spans.truncated());
    EXPECT_EQ(spans.chunks(0).timepoint().nanoseconds(), 4 * kSecond);
    EXPECT_EQ(spans.chunks(1).timepoint().nanoseconds(), 5 * kSecond);
    EXPECT_EQ(spans.chunks(1).sequence(), spans.chunks(0).sequence() + 1);
    EXPECT_EQ(spans.chunks(0).duration().nanoseconds(), kSecond);
    EXPECT_GE(spans.chunks(0).size(), kPayload);

    // Every track, ascending; counters since the store opened.
    Protocol::TrackStatisticsList all = Statistics(s, {});
    ASSERT_EQ(all.tracks_size(), 2);
    const Protocol::TrackStatistics& one = all.tracks(0);
    EXPECT_EQ(one.chunks_written(), 14u);
    EXPECT_EQ(one.files_recycled(), 1u);
    EXPECT_EQ(one.bytes_written(), 14 * spans.chunks(0).size());
    EXPECT_EQ(one.protections(), 1u);
    EXPECT_EQ(one.oldest().nanoseconds(), 3 * kSecond);
    EXPECT_EQ(one.newest().nanoseconds(), 23 * kSecond);
    const Protocol::TrackStatistics& two = all.tracks(1);
    EXPECT_EQ(two.track_id(), 2);
    EXPECT_EQ(two.chunks_written(), 0u);
    EXPECT_EQ(two.oldest().nanoseconds(), -1);
    EXPECT_EQ(two.newest().nanoseconds(), -1);

    // Unknown tracks and bad arguments throw.
    Protocol::TimeRanges ranges;
    EXPECT_THROW(s.Timeline().GetRecordedRanges(99, Ns(0), Ns(kSecond), Ns(0), ranges),
                 std::runtime_error);
    EXPECT_THROW(s.Timeline().ListChunks(99, Ns(0), Ns(kSecond), 10, spans), std::runtime_error);
    EXPECT_THROW(s.Timeline().GetRecordedRanges(1, Ns(kSecond), Ns(0), Ns(0), ranges),
                 std::runtime_error);
    EXPECT_THROW(s.Timeline().GetRecordedRanges(1, Ns(0), Ns(kSecond), Ns(-1), ranges),
                 std::runtime_error);
    EXPECT_THROW(s.Timeline().ListChunks(1, Ns(0), Ns(kSecond), 0, spans), std::runtime_error);
    EXPECT_THROW(s.Timeline().ListChunks(1, Ns(kSecond), Ns(0), 10, spans), std::runtime_error);

    // A restart answers the same from the rebuilt index; counters start
    // again, the protection is reloaded.
    s.Restart();
    EXPECT_EQ(Ranges(s, 1, 0), "[3,6)[10,15)[20,23)");
    Protocol::TrackStatisticsList again = Statistics(s, {1});
    ASSERT_EQ(again.tracks_size(), 1);
    EXPECT_EQ(again.tracks(0).chunks_written(), 0u);
    EXPECT_EQ(again.tracks(0).files_recycled(), 0u);
    EXPECT_EQ(again.tracks(0).protections(), 1u);
    EXPECT_EQ(again.tracks(0).oldest().nanoseconds(), 3 * kSecond);

    // A deleted track is gone from the timeline.
    Protocol::TrackParameters deleted;
    s.Tracks().DeleteTrack(2, deleted);
    EXPECT_EQ(Statistics(s, {}).tracks_size(), 1);
    EXPECT_THROW(s.Timeline().GetRecordedRanges(2, Ns(0), Ns(kSecond), Ns(0), ranges),
                 std::runtime_error);
}

}  // namespace
}  // namespace loopstore::test
