#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Host/Cli/ChunkBuffer.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {
namespace {

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

// Chunk i: 10 bytes at i seconds, lasting one second.
Protocol::Chunk Chunk(int i) {
    Protocol::Chunk chunk;
    *chunk.mutable_timepoint() = Converter::To(TimePoint::FromSeconds(i));
    *chunk.mutable_duration() = Converter::To(TimePoint::FromSeconds(1));
    chunk.set_data(std::string(10, static_cast<char>('a' + i)));
    return chunk;
}

int Index(const ChunkBuffer::ChunkPtr& chunk) {
    return static_cast<int>(Converter::From(chunk->timepoint()).ToNanoseconds() / 1'000'000'000);
}

// Sends whatever is unsent, in batches of up to `batchBytes` (each chunk
// carries 10 bytes); the indexes in order.
std::vector<int> SendAll(ChunkBuffer& buffer, uint64_t batchBytes = 0) {
    std::vector<int> sent;
    while (buffer.Unsent() > 0) {
        for (const ChunkBuffer::ChunkPtr& chunk : buffer.NextBatchToSend(batchBytes)) {
            sent.push_back(Index(chunk));
            buffer.MarkSent(chunk);
        }
    }
    return sent;
}

// The server goes away after storing chunks 0..2 of the 0..4 sent; chunks
// 5..9 come meanwhile into a buffer of 6 chunks. The oldest go first (sent
// ones are free, unsent ones are counted); after the reconnection the
// track's end tells what to send again.
TEST(ChunkBufferTest, AfterAReconnectionWhatWasNotStoredIsSentAgainOldestDroppedFirst) {
    ChunkBuffer buffer(60);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(buffer.Push(Chunk(i)));
    EXPECT_EQ(SendAll(buffer), (std::vector<int>{0, 1, 2, 3, 4}));
    for (int i = 5; i < 10; ++i)
        buffer.Push(Chunk(i));
    // 10 chunks, room for 6: 0..3 were sent and go without loss.
    EXPECT_EQ(buffer.TakeDropped().chunks, 0u);
    buffer.Push(Chunk(10));
    buffer.Push(Chunk(11));
    // 4 (sent) and 5 (never sent) go now: one chunk lost, said to be.
    const ChunkBuffer::Dropped dropped = buffer.TakeDropped();
    EXPECT_EQ(dropped.chunks, 1u);
    EXPECT_EQ(dropped.bytes, 10u);
    EXPECT_EQ(dropped.from, TimePoint::FromSeconds(5));
    EXPECT_EQ(dropped.to, TimePoint::FromSeconds(6));

    // The new server stored up to the end of chunk 2 only: nothing held
    // before that, so everything held is sent again.
    buffer.Confirm(TimePoint::FromSeconds(3), true);
    const std::vector<ChunkBuffer::ChunkPtr> batch = buffer.NextBatchToSend(25);
    ASSERT_EQ(batch.size(), 2u);
    EXPECT_EQ(Index(batch[1]), 7);
    EXPECT_EQ(SendAll(buffer, 25), (std::vector<int>{6, 7, 8, 9, 10, 11}));
    // Stored up to 8's end: 6..8 are forgotten, the rest is kept in case.
    buffer.Confirm(TimePoint::FromSeconds(9), false);
    EXPECT_EQ(buffer.Confirmed(), 3u);
    buffer.ConfirmAllSent();
    EXPECT_EQ(buffer.Confirmed(), 6u);
    EXPECT_EQ(buffer.TotalDropped().chunks, 1u);
    // A chunk larger than the whole buffer is still kept.
    Protocol::Chunk large = Chunk(12);
    large.set_data(std::string(100, 'x'));
    buffer.Push(large);
    EXPECT_EQ(buffer.Unsent(), 1u);
    // And sent, alone, in a batch smaller than itself.
    EXPECT_EQ(SendAll(buffer, 25), (std::vector<int>{12}));
}

// The sender waits for chunks on its own thread and ends when the buffer is
// closed and drained; after a failure the pushing side is told to stop.
TEST(ChunkBufferTest, TheSenderDrainsAClosedBufferAndAFailureStopsThePusher) {
    ChunkBuffer buffer(1 << 20);
    std::vector<int> sent;
    std::thread sender([&] {
        for (;;) {
            const std::vector<ChunkBuffer::ChunkPtr> batch = buffer.NextBatchToSend(35);
            if (batch.empty())
                return;
            for (const ChunkBuffer::ChunkPtr& chunk : batch) {
                sent.push_back(Index(chunk));
                buffer.MarkSent(chunk);
            }
        }
    });
    for (int i = 0; i < 100; ++i)
        buffer.Push(Chunk(i));
    buffer.Close(std::chrono::steady_clock::now() + std::chrono::hours(1));
    sender.join();
    ASSERT_EQ(sent.size(), 100u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(sent[i], i);
    // A drain time that is over: nothing more is handed out.
    ChunkBuffer late(1 << 20);
    late.Push(Chunk(0));
    late.Close(std::chrono::steady_clock::now());
    EXPECT_EQ(late.NextToSend(), nullptr);
    EXPECT_FALSE(late.Wait(std::chrono::milliseconds(10)));
    late.Fail();
    EXPECT_FALSE(late.Push(Chunk(1)));
}

}  // namespace
}  // namespace loopstore::cli
