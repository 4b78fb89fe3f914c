#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Tools/SharedMessageQueue.h"

namespace {

using Moreld::Tools::SharedMessageQueue;

TEST(SharedMessageQueue, PopsInOrderAndTimesOutOnEmptyQueue) {
    SharedMessageQueue<std::unique_ptr<int>> queue;
    EXPECT_EQ(queue.Size(), 0u);
    for (int i = 0; i < 3; ++i) {
        queue.Push(std::make_unique<int>(i));  // move-only messages pass through
    }
    EXPECT_EQ(queue.Size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(*queue.Pop(0), i);
    }

    try {
        queue.Pop(5);
        FAIL() << "an empty queue must time out";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Timeout for SharedMessageQueue");
    }
    // The timeout leaves the queue usable.
    queue.Push(std::make_unique<int>(7));
    EXPECT_EQ(*queue.Pop(0), 7);
    EXPECT_EQ(queue.Size(), 0u);
}

TEST(SharedMessageQueue, WaitingConsumerWakesOnPush) {
    SharedMessageQueue<std::string> queue;
    std::latch consumerStarted(1);
    std::string received;
    std::thread consumer([&] {
        consumerStarted.count_down();
        // Long enough never to expire on a loaded machine.
        received = queue.Pop(60000);
    });
    consumerStarted.wait();
    queue.Push("hello");
    consumer.join();
    EXPECT_EQ(received, "hello");
}

// Every message pushed by several producers reaches exactly one of several
// consumers, and each producer's messages keep their order.
TEST(SharedMessageQueue, ManyProducersManyConsumersLoseNothing) {
    constexpr int kProducers = 4;
    constexpr int kConsumers = 3;
    constexpr int kPerProducer = 2000;
    constexpr int kTotal = kProducers * kPerProducer;
    SharedMessageQueue<int> queue;

    std::vector<std::vector<int>> received(kConsumers);
    std::vector<std::thread> threads;
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&, c] {
            for (;;) {
                const int message = queue.Pop(60000);
                if (message < 0) {
                    return;  // end marker, one per consumer
                }
                received[c].push_back(message);
            }
        });
    }
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                queue.Push(p * kPerProducer + i);
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    for (int c = 0; c < kConsumers; ++c) {
        queue.Push(-1);
    }
    for (auto& thread : threads) {
        thread.join();
    }

    std::vector<int> seen(kTotal, 0);
    for (const auto& messages : received) {
        std::vector<int> lastOfProducer(kProducers, -1);
        for (const int message : messages) {
            ASSERT_GE(message, 0);
            ASSERT_LT(message, kTotal);
            ++seen[message];
            const int producer = message / kPerProducer;
            EXPECT_GT(message, lastOfProducer[producer]) << "order of one producer broken";
            lastOfProducer[producer] = message;
        }
    }
    for (int i = 0; i < kTotal; ++i) {
        ASSERT_EQ(seen[i], 1) << "message " << i;
    }
    EXPECT_EQ(queue.Size(), 0u);
}

}  // namespace
