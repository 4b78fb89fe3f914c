#include "bench/Host/StoreVsBaseline/BaselineTrack.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/ChunkStream.h"
#include "bench/Host/StoreVsBaseline/LookupPlan.h"
#include "tests/Support/TempDir.h"

namespace loopstore::bench {
namespace {

constexpr int64_t kDuration = 40;
constexpr uint64_t kPayload = 100;
// Room for exactly two records of kPayload bytes after the file header.
constexpr uint64_t kFileSize =
    BaselineTrack::kFileHeaderSize + 2 * (BaselineTrack::kRecordHeaderSize + kPayload) + 10;

std::vector<std::string> MakeFiles(const test::TempDir& dir, int count, uint64_t size) {
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
        paths.push_back(dir / std::to_string(i));
        test::CreatePreallocatedFile(paths.back(), size);
    }
    return paths;
}

std::string PayloadOf(int64_t chunk) {
    return std::string(kPayload, static_cast<char>('a' + chunk));
}

void AppendChunks(BaselineTrack& track, int64_t from, int64_t to) {
    for (int64_t c = from; c < to; ++c)
        track.Append(c * kDuration, kDuration, PayloadOf(c));
}

TEST(BaselineTrack, RecyclesTheOldestFileAndForgetsItsChunks) {
    test::TempDir dir;
    BaselineTrack track(MakeFiles(dir, 3, kFileSize), kFileSize);
    AppendChunks(track, 0, 6);  // files 0, 1, 2 full: the ring is used up
    EXPECT_EQ(track.CurrentFile(), 2);
    EXPECT_EQ(track.ChunkCount(), 6u);
    EXPECT_EQ(track.FileOf(0), 0);
    EXPECT_EQ(track.FileOf(5 * kDuration), 2);

    AppendChunks(track, 6, 7);  // reuses file 0, the oldest
    EXPECT_EQ(track.CurrentFile(), 0);
    EXPECT_EQ(track.FileOf(6 * kDuration), 0);
    EXPECT_EQ(track.ChunkCount(), 5u);
    std::string payload;
    EXPECT_FALSE(track.Get(0, payload));
    EXPECT_FALSE(track.Get(kDuration + 1, payload));
    EXPECT_EQ(track.Range().begin, 2 * kDuration);
    EXPECT_EQ(track.Range().end, 7 * kDuration);

    AppendChunks(track, 7, 9);  // file 0 full again, then file 1 goes
    EXPECT_EQ(track.CurrentFile(), 1);
    EXPECT_EQ(track.Range().begin, 4 * kDuration);
    EXPECT_EQ(track.FileOf(8 * kDuration), 1);
}

TEST(BaselineTrack, ReadsTheChunkHoldingATimeAndWalksForward) {
    test::TempDir dir;
    BaselineTrack track(MakeFiles(dir, 3, kFileSize), kFileSize);
    AppendChunks(track, 0, 8);  // chunks 2..7 held, over all three files
    track.Sync();
    std::string payload;
    ASSERT_TRUE(track.Get(3 * kDuration + kDuration / 2, payload));
    EXPECT_EQ(payload, PayloadOf(3));
    EXPECT_FALSE(track.Get(8 * kDuration, payload));  // after the end

    int64_t at = track.Range().begin;
    ASSERT_TRUE(track.Get(at, payload));
    std::vector<int64_t> walked{at};
    while (track.Next(at, payload)) {
        EXPECT_EQ(payload, PayloadOf(at / kDuration));
        walked.push_back(at);
    }
    EXPECT_EQ(walked, (std::vector<int64_t>{80, 120, 160, 200, 240, 280}));
}

TEST(BaselineTrack, RefusesAChunkLargerThanAFile) {
    test::TempDir dir;
    BaselineTrack track(MakeFiles(dir, 2, kFileSize), kFileSize);
    EXPECT_THROW(track.Append(0, kDuration, std::string(kFileSize, 'x')), std::runtime_error);
    EXPECT_EQ(track.ChunkCount(), 0u);
}

// The lookups every contender makes must name chunks a ring still holds
// once the workload is written, or a run would report misses.
TEST(BaselineTrack, HoldsEveryChunkTheLookupPlanNames) {
    for (const Workload& workload : {Workload::A().Scaled(0.01), Workload::B().Scaled(0.01)}) {
        test::TempDir dir;
        BaselineTrack track(MakeFiles(dir, Workload::kFilesPerTrack, workload.FileSize()),
                            workload.FileSize());
        ChunkStream stream(workload, 0);
        while (!stream.Done()) {
            const Protocol::Chunk& chunk = stream.Next();
            track.Append(chunk.timepoint().nanoseconds(), chunk.duration().nanoseconds(),
                         chunk.data());
        }
        const LookupPlan plan = LookupPlan::For(workload, 500);
        ASSERT_EQ(plan.lookups.size(), 500u);
        std::string payload;
        for (const LookupPlan::Lookup& lookup : plan.lookups) {
            if (lookup.track != 0)
                continue;
            ASSERT_TRUE(track.Get(lookup.timePoint, payload))
                << workload.name << " chunk " << lookup.index;
            EXPECT_EQ(ChunkStream::StampOf(payload), lookup.index);
        }
    }
}

}  // namespace
}  // namespace loopstore::bench
