#include "Platform/Protocol/Protocol.pb.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Protocol, TrackParametersMarkWhatIsSetEvenZero) {
    Protocol::TrackParameters answer;
    EXPECT_FALSE(answer.has_id());
    EXPECT_FALSE(answer.has_size());
    EXPECT_FALSE(answer.has_status());

    // A refused creation answers id 0 and size 0: both must read as present.
    answer.set_id(0);
    answer.set_size(0);
    EXPECT_TRUE(answer.has_id());
    EXPECT_TRUE(answer.has_size());
    EXPECT_FALSE(answer.has_status());

    Protocol::TrackParameters parsed;
    ASSERT_TRUE(parsed.ParseFromString(answer.SerializeAsString()));
    EXPECT_TRUE(parsed.has_id());
    EXPECT_TRUE(parsed.has_size());
    EXPECT_FALSE(parsed.has_status());
    EXPECT_EQ(parsed.id(), 0);

    parsed.clear_size();
    EXPECT_FALSE(parsed.has_size());
}

TEST(Protocol, TrackParametersKeepTheHostsFieldNumbers) {
    // id, size and status are fields 1, 2 and 3 on the wire, as the host
    // expects them: tag bytes 0x08, 0x10, 0x18 for varints.
    Protocol::TrackParameters message;
    message.set_status(1);
    EXPECT_EQ(message.SerializeAsString(), std::string("\x18\x01", 2));
    message.Clear();
    message.set_id(7);
    message.set_size(-1);
    const std::string wire = message.SerializeAsString();
    ASSERT_GE(wire.size(), 3u);
    EXPECT_EQ(wire[0], '\x08');
    EXPECT_EQ(wire[1], '\x07');
    EXPECT_EQ(wire[2], '\x10');
}

TEST(Protocol, ChunkAndTrackInfosSurviveARoundTripAndTornDataIsRefused) {
    Protocol::Chunk chunk;
    chunk.mutable_timepoint()->set_nanoseconds(-1);
    chunk.mutable_duration()->set_nanoseconds(40'000'000);
    chunk.set_data(std::string(100'000, '\0') + "tail");
    Protocol::Property* property = chunk.add_properties();
    property->set_key("codec");
    property->set_value("h264");

    const std::string wire = chunk.SerializeAsString();
    Protocol::Chunk parsed;
    ASSERT_TRUE(parsed.ParseFromString(wire));
    EXPECT_EQ(parsed.timepoint().nanoseconds(), -1);
    EXPECT_EQ(parsed.duration().nanoseconds(), 40'000'000);
    EXPECT_EQ(parsed.data(), chunk.data());
    ASSERT_EQ(parsed.properties_size(), 1);
    EXPECT_EQ(parsed.properties(0).key(), "codec");
    EXPECT_EQ(parsed.properties(0).value(), "h264");

    // A message cut inside the payload must not parse as a shorter chunk.
    Protocol::Chunk torn;
    EXPECT_FALSE(torn.ParseFromString(wire.substr(0, wire.size() - 10)));

    Protocol::TrackInfos infos;
    Protocol::TrackInfo* info = infos.add_infos();
    info->set_id(3);
    info->mutable_beginning()->set_nanoseconds(-1);
    info->mutable_end()->set_nanoseconds(-1);
    info->set_current_size(0);
    info->set_track_size(18'446'744'073'709'551'615u);
    Protocol::TrackInfos parsedInfos;
    ASSERT_TRUE(parsedInfos.ParseFromString(infos.SerializeAsString()));
    ASSERT_EQ(parsedInfos.infos_size(), 1);
    EXPECT_EQ(parsedInfos.infos(0).id(), 3);
    EXPECT_TRUE(parsedInfos.infos(0).has_beginning());
    EXPECT_EQ(parsedInfos.infos(0).beginning().nanoseconds(), -1);
    EXPECT_EQ(parsedInfos.infos(0).track_size(), 18'446'744'073'709'551'615u);
}

}  // namespace
