#include "Host/Cli/TrackWriteStream.h"

#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/StorageClient.h"

namespace loopstore::cli {

TrackWriteStream::TrackWriteStream(const StorageClient& client, rpc::TrackWriter::Stub& stub,
                                   int64_t trackId)
    : client_(client), trackId_(trackId) {
    client_.Prepare(context_, false);
    stream_ = stub.Write(&context_, &summary_);
    rpc::WriteRequest open;
    open.mutable_open()->set_track_id(trackId);
    if (!stream_->Write(open))
        Finish();  // throws the server's reason
}

TrackWriteStream::~TrackWriteStream() {
    if (finished_)
        return;
    try {
        Finish();
    } catch (const CliError&) {
        // Already failing: the caller's error is the one to report.
    }
}

void TrackWriteStream::Write(const Protocol::Chunk& chunk) {
    rpc::WriteRequest request;
    // The payload is borrowed for the call, never copied.
    request.set_allocated_chunk(const_cast<Protocol::Chunk*>(&chunk));
    const bool ok = stream_->Write(request);
    // Hand the borrowed chunk back so that the request does not delete it.
    static_cast<void>(request.release_chunk());
    if (!ok) {
        Finish();
        throw CliError("track " + std::to_string(trackId_) +
                       ": the server closed the write stream");
    }
}

rpc::WriteSummary TrackWriteStream::Finish() {
    if (finished_)
        return summary_;
    finished_ = true;
    stream_->WritesDone();
    client_.Check(stream_->Finish(), "writing to track " + std::to_string(trackId_));
    return summary_;
}

}  // namespace loopstore::cli
