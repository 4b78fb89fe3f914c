#include "Storage/Server/TrackLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

TEST(TrackLock, OneHolderPerTrack) {
    auto first = std::make_unique<TrackLock>(7);
    EXPECT_EQ(first->GetTrackId(), 7);
    try {
        TrackLock second(7);
        FAIL() << "a second lock on track 7 was granted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Track 7 is already being written to");
    }
    // The refused lock released nothing, and other tracks are independent.
    EXPECT_THROW(TrackLock{7}, std::runtime_error);
    { TrackLock other(8); }
    { TrackLock negative(-7); }

    first.reset();
    TrackLock again(7);
    EXPECT_THROW(TrackLock{7}, std::runtime_error);
}

TEST(TrackLock, RacingLocksGrantExactlyOne) {
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::latch tried(kThreads);
    std::atomic<int> granted{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            std::unique_ptr<TrackLock> lock;
            try {
                lock = std::make_unique<TrackLock>(31);
                ++granted;
            } catch (const std::runtime_error&) {
                ++refused;
            }
            // Everyone holds what they got until all have tried.
            tried.arrive_and_wait();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(granted, 1);
    EXPECT_EQ(refused, kThreads - 1);
    TrackLock after(31);  // the winner released it
}
