#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <memory>

#include "Host/Cli/StorageClient.h"
#include "Host/Rpc/Loopstore.grpc.pb.h"

namespace loopstore::cli {

// One Export call read chunk by chunk, at the pace of its reader: the chunks
// of a track that overlap a range, in time order.
//
// Refers to the client, which must outlive it. One thread at a time.
class ExportStream {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    ExportStream(const StorageClient& client, rpc::TrackReader::Stub& stub, int64_t trackId,
                 TimePoint from, TimePoint to);
    // Cancels the call if Finish was not called.
    ~ExportStream();

    // The next chunk into `chunk`; false at the end (then call Finish).
    bool Next(Protocol::Chunk& chunk);
    // Reads what is left, ends the call and returns the records the server
    // skipped. Throws CliError when the call failed.
    StorageClient::Damaged Finish();

  private:
    const StorageClient& client_;
    const int64_t trackId_;
    grpc::ClientContext context_;
    std::unique_ptr<grpc::ClientReader<Protocol::Chunk>> stream_;
    bool finished_ = false;
};

}  // namespace loopstore::cli
