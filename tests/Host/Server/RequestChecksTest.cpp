#include "Host/Server/RequestChecks.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/Host/Server/ServerFixture.h"

using grpc::StatusCode;
using loopstore::test::At;
using loopstore::test::ChunkAt;
using loopstore::test::OpenWrite;
using loopstore::test::ServerFixture;
namespace rpc = loopstore::rpc;

namespace {

constexpr int64_t kSecond = ServerFixture::kSecond;
// An hour before the last representable instant (2262-04-11).
constexpr int64_t kLate = INT64_MAX - 3600 * kSecond;

// Times whose sum leaves 64 bits (a chunk or a protection ending past 2262)
// are refused by the server as bad arguments before the storage computes
// with them; the track takes chunks as before afterwards.
TEST(RequestChecksTest, IntervalsEndingBeyondTheTimeRangeAreRefused) {
    ServerFixture s(4);
    const long track = s.CreateTrack(1, 2);

    rpc::ProtectRequest protect;
    protect.set_track_id(track);
    *protect.mutable_from() = At(kLate);
    *protect.mutable_duration() = At(2 * 3600 * kSecond);
    rpc::ProtectionId id;
    grpc::Status status = s.Tracks().Protect(s.Context().get(), protect, &id);
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code());
    EXPECT_NE(std::string::npos, status.error_message().find("a protection from"))
        << status.error_message();

    {
        auto context = s.Context();
        rpc::WriteSummary summary;
        auto stream = s.Writers().Write(context.get(), &summary);
        stream->Write(OpenWrite(track));
        stream->Write(ChunkAt(kLate, 2 * 3600 * kSecond, 100));
        stream->WritesDone();
        status = stream->Finish();
        EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code());
        EXPECT_NE(std::string::npos, status.error_message().find("a chunk from"))
            << status.error_message();
    }
    EXPECT_TRUE(s.Record(track, 10 * kSecond, 2).ok());
    EXPECT_EQ(kLate + 3600 * kSecond,
              loopstore::host::RequestChecks::EndOf(kLate, 3600 * kSecond, "x"));
    EXPECT_THROW(loopstore::host::RequestChecks::EndOf(INT64_MIN, -1, "x"), std::invalid_argument);
}

}  // namespace
