#include <gtest/gtest.h>

#include <vector>

#include "Host/Cli/CliError.h"
#include "Host/Cli/LiveStamper.h"

namespace loopstore::cli {
namespace {

using Moreld::Time::TimePoint;

constexpr TimePoint Ms(int64_t ms) {
    return TimePoint::FromMilliseconds(ms);
}

// A wall clock the test moves by hand.
struct FakeClock {
    TimePoint now = TimePoint::FromSeconds(1'800'000'000);
    LiveStamper::Clock Get() {
        return [this] { return now; };
    }
};

// Every stamp starts at or after the previous end and ends by the arrival.
void ExpectOrderedAndNeverAhead(const std::vector<LiveStamper::Stamp>& stamps,
                                const std::vector<TimePoint>& arrivals) {
    for (size_t i = 0; i < stamps.size(); ++i) {
        EXPECT_GT(stamps[i].duration, TimePoint()) << i;
        EXPECT_LE(stamps[i].at + stamps[i].duration, arrivals[i]) << i;
        if (i > 0) {
            EXPECT_GE(stamps[i].at, stamps[i - 1].at + stamps[i - 1].duration) << i;
        }
    }
}

// Arrivals jitter by 15 ms either way around a steady 40 ms: stamps follow
// the stream's clock, contiguous. The first chunk came late, so one early
// arrival shortens one chunk and lowers the stamps onto the earliest
// arrivals; jitter is absorbed from then on.
TEST(LiveStamperTest, JitterIsSmoothedAndAPauseIsAGap) {
    FakeClock clock;
    LiveStamper stamper(1, TimePoint::FromNanoseconds(-1), Ms(500), clock.Get());
    std::vector<LiveStamper::Stamp> stamps;
    std::vector<TimePoint> arrivals;
    const TimePoint begin = clock.now;
    for (int i = 1; i <= 100; ++i) {
        clock.now = begin + Ms(40 * i + (i % 3 == 0 ? -15 : 15));
        arrivals.push_back(clock.now);
        stamps.push_back(stamper.Next(Ms(40)));
    }
    ExpectOrderedAndNeverAhead(stamps, arrivals);
    EXPECT_EQ(stamps.front().at + Ms(40), arrivals.front());
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_EQ(stamps[i].at, stamps[i - 1].at + stamps[i - 1].duration) << i;
    EXPECT_EQ(stamper.Anchors(), 1u);
    EXPECT_EQ(stamper.Shortened(), 1u);

    // Three seconds without input: the next chunk lands by the wall clock,
    // leaving the pause as a gap.
    clock.now += Ms(3000);
    const LiveStamper::Stamp after = stamper.Next(Ms(40));
    EXPECT_EQ(after.at + after.duration, clock.now);
    EXPECT_GT(after.at - (stamps.back().at + stamps.back().duration), Ms(2900));
    EXPECT_EQ(stamper.Anchors(), 2u);
}

// The stream's clock runs 2% slow against the wall clock: the lag grows
// until it passes the tolerance, then the stamps jump back to the wall
// clock; the lag never exceeds the tolerance plus one chunk.
TEST(LiveStamperTest, DriftBeyondTheToleranceReanchors) {
    FakeClock clock;
    LiveStamper stamper(1, TimePoint::FromNanoseconds(-1), Ms(200), clock.Get());
    std::vector<LiveStamper::Stamp> stamps;
    std::vector<TimePoint> arrivals;
    for (int i = 0; i < 500; ++i) {
        clock.now += Ms(41);
        arrivals.push_back(clock.now);
        stamps.push_back(stamper.Next(Ms(40)));
        const TimePoint lag = clock.now - (stamps.back().at + stamps.back().duration);
        EXPECT_LE(lag, Ms(200 + 41)) << i;
    }
    ExpectOrderedAndNeverAhead(stamps, arrivals);
    // 500 x 1 ms of drift over a 200 ms tolerance: two jumps after the first.
    EXPECT_EQ(stamper.Anchors(), 3u);
}

// A file poured in faster than real time: chunks are shortened to end by
// now instead of running ahead; stamps stay ordered.
TEST(LiveStamperTest, InputFasterThanRealTimeNeverRunsAhead) {
    FakeClock clock;
    LiveStamper stamper(1, TimePoint::FromNanoseconds(-1), Ms(500), clock.Get());
    std::vector<LiveStamper::Stamp> stamps;
    std::vector<TimePoint> arrivals;
    for (int i = 0; i < 50; ++i) {
        clock.now += Ms(1);
        arrivals.push_back(clock.now);
        stamps.push_back(stamper.Next(Ms(40)));
    }
    ExpectOrderedAndNeverAhead(stamps, arrivals);
    EXPECT_EQ(stamper.Shortened(), 49u);
    // Two chunks in the same nanosecond: the second still lasts 1 ns.
    const LiveStamper::Stamp same = stamper.Next(Ms(40));
    EXPECT_EQ(same.duration, TimePoint::FromNanoseconds(1));
    EXPECT_EQ(same.at, stamps.back().at + stamps.back().duration);
}

// A track that ends a moment ago is continued after its end; one that ends
// in the future is refused, naming the end and the option to use.
TEST(LiveStamperTest, TheTracksEndBoundsTheFirstStamp) {
    FakeClock clock;
    const TimePoint recent = clock.now - Ms(10);
    LiveStamper stamper(7, recent, Ms(500), clock.Get());
    const LiveStamper::Stamp first = stamper.Next(Ms(40));
    EXPECT_EQ(first.at, recent);
    EXPECT_EQ(first.at + first.duration, clock.now);

    const TimePoint future = clock.now + TimePoint::FromSeconds(3600);
    try {
        LiveStamper refused(7, future, Ms(500), clock.Get());
        FAIL() << "a track ending in the future was accepted";
    } catch (const CliError& e) {
        const std::string text = e.what();
        EXPECT_NE(text.find("track 7 ends at " + future.ToString()), std::string::npos) << text;
        EXPECT_NE(text.find("--clock stream"), std::string::npos) << text;
    }
}

}  // namespace
}  // namespace loopstore::cli
