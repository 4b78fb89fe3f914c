#include "Host/Server/ErrorStatus.h"

#include <gtest/gtest.h>

#include <stdexcept>

using grpc::StatusCode;
using loopstore::host::ErrorStatus;

namespace {

TEST(ErrorStatusTest, MapsStorageTextsToCodes) {
    // Unknown tracks, from the writer and reader factories, resize and protect.
    EXPECT_EQ(StatusCode::NOT_FOUND,
              ErrorStatus::CodeFor("Cannot create a writer, track 7 has not been created"));
    EXPECT_EQ(StatusCode::NOT_FOUND,
              ErrorStatus::CodeFor("Cannot ResizeTrack 7: Track is not created"));
    EXPECT_EQ(StatusCode::NOT_FOUND,
              ErrorStatus::CodeFor("Track 7 does not exist to protect at 1970-01-01T00:00:00Z"));
    EXPECT_EQ(StatusCode::NOT_FOUND,
              ErrorStatus::CodeFor("T7: does not exist, you cannot SetTrackProperties"));
    // Bad chunks.
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT,
              ErrorStatus::CodeFor("T7: Duration must be strictly positive, you set 0s, which "
                                   "means you set 0 or you set nothing"));
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT,
              ErrorStatus::CodeFor("T7: Chunk's timepoint 1 is < end of track 2"));
    // Refused in the current state.
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              ErrorStatus::CodeFor("Track 7 is already being written to"));
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              ErrorStatus::CodeFor("T7: Cannot DeleteTrack, there are still 1 active workers on "
                                   "it. Close your readers and writers then try again"));
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              ErrorStatus::CodeFor("Track 7 already exist. You cannot create it a second time"));
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              ErrorStatus::CodeFor("Cannot ResizeTrack 7: No pool available"));
    // The pool's shortage wins over the wrapping refusal.
    EXPECT_EQ(StatusCode::RESOURCE_EXHAUSTED,
              ErrorStatus::CodeFor("Cannot ResizeTrack 7: Only 2 free files remaining with a "
                                   "size of 131072B"));
    // Chunks accepted and lost later: whatever the reason they give.
    EXPECT_EQ(StatusCode::DATA_LOSS,
              ErrorStatus::CodeFor("T7: 2 chunks accepted could not be stored, the first at 1: "
                                   "Current file f cannot hold a chunk of size 9 on track7"));
    EXPECT_EQ(StatusCode::RESOURCE_EXHAUSTED,
              ErrorStatus::CodeFor("T7: No more recyclable file available to store chunk at 1 "
                                   "of size 9. Grow track or unprotect some content"));
    EXPECT_EQ(StatusCode::INTERNAL, ErrorStatus::CodeFor("disk on fire"));
    EXPECT_EQ(StatusCode::INTERNAL, ErrorStatus::CodeFor(""));
}

TEST(ErrorStatusTest, KeepsTextAndTrustsOwnArgumentChecks) {
    const grpc::Status storage =
        ErrorStatus::FromException(std::runtime_error("Track 3 is already being written to"));
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION, storage.error_code());
    EXPECT_EQ("Track 3 is already being written to", storage.error_message());

    // The server's own checks carry no storage wording.
    const grpc::Status own = ErrorStatus::FromException(std::invalid_argument("first message"));
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, own.error_code());
    EXPECT_EQ("first message", own.error_message());

    EXPECT_EQ(StatusCode::INTERNAL, ErrorStatus::FromException(std::bad_alloc()).error_code());
}

}  // namespace
