#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "Host/Rpc/Loopstore.grpc.pb.h"

namespace loopstore::cli {

class StorageClient;

// One open write stream: the server holds a track writer for as long as the
// stream lives. Chunks go in time order; Finish() closes the stream and
// returns what the server stored.
//
// Refers to the client, which must outlive it. One thread at a time.
class TrackWriteStream {
  public:
    TrackWriteStream(const StorageClient& client, rpc::TrackWriter::Stub& stub, int64_t trackId);
    // Closes the stream if Finish was not called (errors are then dropped).
    ~TrackWriteStream();

    // Sends one chunk. A broken stream throws CliError with the server's
    // reason; the chunks accepted before are kept.
    void Write(const Protocol::Chunk& chunk);
    // Sends `chunks` in one message, in order; as Write otherwise.
    void Write(const std::vector<std::shared_ptr<const Protocol::Chunk>>& chunks);
    // Closes the stream; throws CliError when the server refused it.
    rpc::WriteSummary Finish();

  private:
    // The server closed the stream: throws its reason, or says it closed.
    [[noreturn]] void Closed();

    const StorageClient& client_;
    const int64_t trackId_;
    grpc::ClientContext context_;
    rpc::WriteSummary summary_;
    std::unique_ptr<grpc::ClientWriter<rpc::WriteRequest>> stream_;
    bool finished_ = false;
};

}  // namespace loopstore::cli
