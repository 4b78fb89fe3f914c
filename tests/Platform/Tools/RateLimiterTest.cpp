#include "Platform/Tools/RateLimiter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using Moreld::Tools::RateLimiter;

// One event per second gets through, each telling how many were held back
// before it; the interval counts from the last event let through.
TEST(RateLimiter, LetsOneEventThroughPerIntervalWithTheCountHeldBack) {
    int64_t now = 5'000'000;
    RateLimiter limiter(1'000'000, [&] { return now; });
    uint64_t suppressed = 99;
    EXPECT_TRUE(limiter.Allow(suppressed));
    EXPECT_EQ(suppressed, 0u);
    for (int i = 0; i < 3; ++i) {
        now += 300'000;
        EXPECT_FALSE(limiter.Allow(suppressed));
    }
    now += 99'999;  // 999,999 us after the first: still held back
    EXPECT_FALSE(limiter.Allow(suppressed));
    now += 1;
    EXPECT_TRUE(limiter.Allow(suppressed));
    EXPECT_EQ(suppressed, 4u);
    now += 10'000'000;  // a quiet spell: the next one goes through at once
    EXPECT_TRUE(limiter.Allow(suppressed));
    EXPECT_EQ(suppressed, 0u);
}

// From several threads at once, with a clock that never moves, exactly one
// event gets through and every other one is counted.
TEST(RateLimiter, CountsEveryEventAcrossThreads) {
    std::atomic<int64_t> now{0};
    RateLimiter limiter(1'000'000, [&] { return now.load(); });
    std::atomic<int> allowed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                uint64_t suppressed = 0;
                if (limiter.Allow(suppressed))
                    ++allowed;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(allowed, 1);
    now = 1'000'000;
    uint64_t suppressed = 0;
    EXPECT_TRUE(limiter.Allow(suppressed));
    EXPECT_EQ(suppressed, 3999u);
}
