#include <gtest/gtest.h>

#include "bench/Host/StoreVsBaseline/Latencies.h"
#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {
namespace {

TEST(Latencies, NearestRankPercentiles) {
    Latencies empty;
    EXPECT_EQ(empty.Percentile(50), 0);

    Latencies one;
    one.Add(7);
    EXPECT_EQ(one.Percentile(0), 7);
    EXPECT_EQ(one.Percentile(99), 7);

    Latencies hundred;
    for (int64_t v = 100; v >= 1; --v)  // out of order on purpose
        hundred.Add(v);
    EXPECT_EQ(hundred.Percentile(50), 50);
    EXPECT_EQ(hundred.Percentile(99), 99);  // not 100: 99 % of 100 is exact
    EXPECT_EQ(hundred.Percentile(99.5), 100);
    EXPECT_EQ(hundred.Percentile(100), 100);
    EXPECT_EQ(hundred.Percentile(0), 1);
    EXPECT_EQ(hundred.Percentile(250), 100);

    Latencies ten;
    for (int64_t v = 1; v <= 10; ++v)
        ten.Add(v * 10);
    EXPECT_EQ(ten.Percentile(50), 50);
    EXPECT_EQ(ten.Percentile(99), 100);
    EXPECT_EQ(ten.Percentile(91), 100);
    EXPECT_EQ(ten.Percentile(90), 90);
}

TEST(Workload, ScalingKeepsTheWrapsAndFilesThatHoldChunks) {
    const Workload a = Workload::A();
    EXPECT_EQ(a.FileSize(), 8u * 1024 * 1024);
    EXPECT_EQ(a.BytesWritten(), 2048ull * 1024 * 1024);
    EXPECT_DOUBLE_EQ(a.Wraps(), 2.0);
    EXPECT_NEAR(Workload::B().Wraps(), 2.56, 0.01);

    const Workload tenth = a.Scaled(0.1);
    EXPECT_EQ(tenth.tracks, a.tracks);
    EXPECT_NEAR(tenth.Wraps(), a.Wraps(), 0.01);
    EXPECT_NEAR(static_cast<double>(tenth.totalBytes), 0.1 * a.totalBytes, a.totalBytes * 0.001);

    // Far down, files keep room for a few chunks and the rings still wrap.
    const Workload tiny = Workload::B().Scaled(1e-6);
    EXPECT_GE(tiny.FileSize(),
              Workload::kMinChunksPerFile * (tiny.chunkBytes + Workload::kRecordOverhead));
    EXPECT_GT(tiny.ChunksPerTrack(), 0u);
    EXPECT_NEAR(tiny.Wraps(), Workload::B().Wraps(), 0.05);
}

}  // namespace
}  // namespace loopstore::bench
