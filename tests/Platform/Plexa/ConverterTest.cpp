#include "Platform/Plexa/Converter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

using Moreld::Plexa::Converter;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

// Far above any small-string buffer, so the payload lives on the heap and
// its address tells whether it was moved or copied.
const std::string kLargePayload(1 << 20, 'x');

TEST(Converter, TimePointsRoundTripIncludingNegativeAndExtremes) {
    for (int64_t ns :
         {int64_t{0}, int64_t{-1}, int64_t{-86'400'000'000'001}, int64_t{1'795'000'000'123'456'789},
          std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        const TimePoint tp = TimePoint::FromNanoseconds(ns);
        const Protocol::TimePoint message = Converter::To(tp);
        EXPECT_EQ(message.nanoseconds(), ns);
        EXPECT_EQ(Converter::From(message), tp) << ns;
    }
    EXPECT_EQ(Converter::From(Protocol::TimePoint()), TimePoint());
}

TEST(Converter, FillCopiesOnlyTheRequestedProperties) {
    DataChunk chunk(TimePoint::FromSeconds(10), TimePoint::FromMilliseconds(40), "payload");
    chunk.SetProperty("a", "1");
    chunk.SetProperty("b", "2");
    chunk.SetProperty("c", "3");
    const DataChunk before = chunk;

    Protocol::Chunk out;
    out.add_properties()->set_key("stale");
    Converter::Fill(chunk, out, {"c", "a", "not-there"});
    EXPECT_EQ(out.timepoint().nanoseconds(), 10'000'000'000);
    EXPECT_EQ(out.duration().nanoseconds(), 40'000'000);
    EXPECT_EQ(out.data(), "payload");
    ASSERT_EQ(out.properties_size(), 2);
    EXPECT_EQ(out.properties(0).key(), "a");
    EXPECT_EQ(out.properties(0).value(), "1");
    EXPECT_EQ(out.properties(1).key(), "c");
    EXPECT_EQ(out.properties(1).value(), "3");
    EXPECT_EQ(chunk, before);

    // No keys: no properties, and nothing left of an earlier answer.
    Converter::Fill(chunk, out, {});
    EXPECT_EQ(out.properties_size(), 0);
    EXPECT_EQ(out.data(), "payload");
}

TEST(Converter, SwapMovesEverythingWithoutCopyingThePayload) {
    Protocol::Chunk message;
    message.mutable_timepoint()->set_nanoseconds(-5);
    message.mutable_duration()->set_nanoseconds(40);
    message.set_data(kLargePayload);
    Protocol::Property* property = message.add_properties();
    property->set_key("k");
    property->set_value("from message");
    const char* messageBuffer = message.data().data();

    DataChunk chunk(TimePoint::FromNanoseconds(100), TimePoint::FromNanoseconds(7),
                    kLargePayload + "y");
    chunk.SetProperty("own", "from chunk");
    const char* chunkBuffer = chunk.GetData().data();

    // Message into chunk, as the writer does with a received chunk.
    Converter::Swap(chunk, message);
    EXPECT_EQ(chunk.GetData().data(), messageBuffer);
    EXPECT_EQ(chunk.GetData(), kLargePayload);
    EXPECT_EQ(chunk.GetTimePoint(), TimePoint::FromNanoseconds(-5));
    EXPECT_EQ(chunk.GetDuration(), TimePoint::FromNanoseconds(40));
    EXPECT_EQ(chunk.GetProperties(), (DataChunk::Properties{{"k", "from message"}}));

    // ...and the chunk's former content went the other way, as the reader
    // does with a chunk read from a file.
    EXPECT_EQ(message.data().data(), chunkBuffer);
    EXPECT_EQ(message.data().size(), kLargePayload.size() + 1);
    EXPECT_EQ(message.timepoint().nanoseconds(), 100);
    EXPECT_EQ(message.duration().nanoseconds(), 7);
    ASSERT_EQ(message.properties_size(), 1);
    EXPECT_EQ(message.properties(0).key(), "own");
    EXPECT_EQ(message.properties(0).value(), "from chunk");

    Converter::Swap(chunk, message);
    EXPECT_EQ(chunk.GetData().data(), chunkBuffer);
    EXPECT_EQ(message.data().data(), messageBuffer);
    EXPECT_EQ(chunk.GetProperties(), (DataChunk::Properties{{"own", "from chunk"}}));
    EXPECT_EQ(message.properties(0).key(), "k");
}

TEST(Converter, SwapIntoAFreshChunkAndDuplicateKeys) {
    Protocol::Chunk message;
    message.set_data(kLargePayload);
    for (const char* value : {"first", "last"}) {
        Protocol::Property* property = message.add_properties();
        property->set_key("dup");
        property->set_value(value);
    }
    DataChunk fresh;
    Converter::Swap(fresh, message);
    EXPECT_EQ(fresh.GetTimePoint(), TimePoint());
    EXPECT_EQ(fresh.GetProperties(), (DataChunk::Properties{{"dup", "last"}}));
    EXPECT_EQ(fresh.GetData(), kLargePayload);
    EXPECT_TRUE(message.data().empty());
    EXPECT_EQ(message.properties_size(), 0);
    EXPECT_EQ(message.timepoint().nanoseconds(), 0);
}

}  // namespace
