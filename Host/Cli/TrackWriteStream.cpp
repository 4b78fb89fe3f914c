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

// The chunks are borrowed by the request for the call, never copied, and
// handed back before it goes so that it does not delete them.

void TrackWriteStream::Write(const Protocol::Chunk& chunk) {
    rpc::WriteRequest request;
    request.set_allocated_chunk(const_cast<Protocol::Chunk*>(&chunk));
    const bool ok = stream_->Write(request);
    static_cast<void>(request.release_chunk());
    if (!ok)
        Closed();
}

void TrackWriteStream::Write(const std::vector<std::shared_ptr<const Protocol::Chunk>>& chunks) {
    if (chunks.size() == 1)
        return Write(*chunks.front());
    rpc::WriteRequest request;
    auto& borrowed = *request.mutable_batch()->mutable_chunks();
    for (const auto& chunk : chunks)
        borrowed.AddAllocated(const_cast<Protocol::Chunk*>(chunk.get()));
    const bool ok = stream_->Write(request);
    while (!borrowed.empty())
        static_cast<void>(borrowed.ReleaseLast());
    if (!ok)
        Closed();
}

void TrackWriteStream::Closed() {
    Finish();  // throws the server's reason, when it gave one
    throw CliError("track " + std::to_string(trackId_) + ": the server closed the write stream");
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
