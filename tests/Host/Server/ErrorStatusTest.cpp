#include "Host/Server/ErrorStatus.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "Platform/Services/StorageErrors.h"

using grpc::StatusCode;
using loopstore::host::ErrorStatus;
namespace api = MoreldStorageApi;

namespace {

TEST(ErrorStatusTest, MapsStorageErrorsByType) {
    // Unknown tracks, from the writer and reader factories, resize and protect.
    EXPECT_EQ(StatusCode::NOT_FOUND, ErrorStatus::CodeFor(api::NotFoundError(
                                         "Cannot create a writer, track 7 has not been created")));
    // Bad chunks.
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, ErrorStatus::CodeFor(api::InvalidArgumentError(
                                                "T7: Chunk's timepoint 1 is < end of track 2")));
    // Refused in the current state.
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              ErrorStatus::CodeFor(api::StoreBusyError("Track 7 is already being written to")));
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              ErrorStatus::CodeFor(api::AlreadyExistsError(
                  "Track 7 already exist. You cannot create it a second time")));
    EXPECT_EQ(StatusCode::RESOURCE_EXHAUSTED,
              ErrorStatus::CodeFor(
                  api::OutOfSpaceError("Only 2 free files remaining with a size of 131072B")));
    // Chunks accepted and lost later, and records that read back damaged.
    EXPECT_EQ(StatusCode::DATA_LOSS,
              ErrorStatus::CodeFor(
                  api::DataLossError("T7: 2 chunks accepted could not be stored, the first at 1")));
    EXPECT_EQ(StatusCode::DATA_LOSS,
              ErrorStatus::CodeFor(api::CorruptionError("bad record at offset 16")));
    // The text no longer decides: a plain error is internal whatever it says.
    EXPECT_EQ(StatusCode::INTERNAL,
              ErrorStatus::CodeFor(std::runtime_error("Track 7 does not exist")));
    EXPECT_EQ(StatusCode::INTERNAL, ErrorStatus::CodeFor(api::IoError("disk on fire")));
}

TEST(ErrorStatusTest, KeepsTextAndTrustsOwnArgumentChecks) {
    const grpc::Status storage =
        ErrorStatus::FromException(api::StoreBusyError("Track 3 is already being written to"));
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION, storage.error_code());
    EXPECT_EQ("Track 3 is already being written to", storage.error_message());

    // The server's own checks carry no storage wording.
    const grpc::Status own = ErrorStatus::FromException(std::invalid_argument("first message"));
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, own.error_code());
    EXPECT_EQ("first message", own.error_message());

    EXPECT_EQ(StatusCode::INTERNAL, ErrorStatus::FromException(std::bad_alloc()).error_code());
}

}  // namespace
