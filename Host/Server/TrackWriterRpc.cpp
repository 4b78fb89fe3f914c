#include "Host/Server/TrackWriterRpc.h"

#include <stdexcept>

#include "Host/Server/RequestChecks.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Services/StorageErrors.h"

namespace loopstore::host {

using Moreld::Plexa::Converter;

TrackWriterRpc::TrackWriterRpc(const PeerServiceFactory& services, const CallGuard& guard)
    : services_(services),
      guard_(guard),
      logger_(tav::mr::logging::LoggingManager::GetLogger("TrackWriterRpc")) {}

grpc::Status TrackWriterRpc::Write(grpc::ServerContext* context,
                                   grpc::ServerReader<rpc::WriteRequest>* stream,
                                   rpc::WriteSummary* summary) {
    return guard_.Run(*context, "Write", [&] { Record(*context, *stream, *summary); });
}

std::string TrackWriterRpc::StoredSoFar(MoreldStorageApi::ITrackWriter& writer) {
    std::string text;
    long stored = 0;
    try {
        writer.WaitUntilStored(stored);
    } catch (const std::runtime_error& loss) {
        text = std::string("; ") + loss.what();
    }
    return text + " (" + std::to_string(stored) + " chunks of this stream stored)";
}

void TrackWriterRpc::AppendOrSayWhatWasStored(MoreldStorageApi::ITrackWriter& writer,
                                              const Protocol::Chunk& chunk) {
    try {
        writer.Append(chunk);
    } catch (const std::runtime_error& refusal) {
        // The stream ends here: the client learns what it kept of it.
        MoreldStorageApi::ThrowAmended(refusal, refusal.what() + StoredSoFar(writer));
    }
}

void TrackWriterRpc::Record(grpc::ServerContext& context,
                            grpc::ServerReader<rpc::WriteRequest>& stream,
                            rpc::WriteSummary& summary) {
    rpc::WriteRequest request;
    if (!stream.Read(&request))
        return;  // closed before naming a track: nothing to write
    const long trackId = OpenedTrack(request);
    // The writer refers to objects of the service: declared after it, it is
    // destroyed first.
    std::unique_ptr<MoreldStorageApi::Service> service = services_.Construct(context);
    ClientObject<MoreldStorageApi::ITrackWriter> writer(
        service->trackWriterFactory->Create(trackId));
    MR_LOG(logger_, 30, "T" << trackId << ": write stream opened by " << context.peer());
    while (stream.Read(&request))
        Accept(trackId, request, *writer, summary);
    long stored = 0;
    writer->WaitUntilStored(stored);  // throws when accepted chunks were lost
    summary.set_stored(stored);
    // A stop of the server cancels the stream; what was accepted is kept all
    // the same, the writer's destruction below writes it out.
    MR_LOG(logger_, 30,
           "T" << trackId << ": write stream of " << context.peer() << " ended"
               << (context.IsCancelled() ? " (cancelled)" : "") << " after " << summary.chunks()
               << " chunks");
}

long TrackWriterRpc::OpenedTrack(const rpc::WriteRequest& first) {
    if (!first.has_open())
        throw std::invalid_argument("The first message of a write stream must name its track");
    return static_cast<long>(first.open().track_id());
}

void TrackWriterRpc::Accept(long trackId, const rpc::WriteRequest& request,
                            MoreldStorageApi::ITrackWriter& writer, rpc::WriteSummary& summary) {
    if (request.has_chunk())
        return AcceptChunk(trackId, request.chunk(), writer, summary);
    if (!request.has_batch()) {
        throw std::invalid_argument("T" + std::to_string(trackId) +
                                    ": a write stream names its track only once");
    }
    for (const Protocol::Chunk& chunk : request.batch().chunks())
        AcceptChunk(trackId, chunk, writer, summary);
}

void TrackWriterRpc::AcceptChunk(long trackId, const Protocol::Chunk& chunk,
                                 MoreldStorageApi::ITrackWriter& writer,
                                 rpc::WriteSummary& summary) {
    const int64_t bytes = static_cast<int64_t>(chunk.data().size());
    int64_t end = 0;
    try {
        end = RequestChecks::EndOf(chunk.timepoint().nanoseconds(), chunk.duration().nanoseconds(),
                                   "T" + std::to_string(trackId) + ": a chunk");
    } catch (const std::invalid_argument& refusal) {
        throw std::invalid_argument(refusal.what() + StoredSoFar(writer));
    }
    AppendOrSayWhatWasStored(writer, chunk);
    summary.set_chunks(summary.chunks() + 1);
    summary.set_bytes(summary.bytes() + bytes);
    summary.mutable_end()->set_nanoseconds(end);
}

}  // namespace loopstore::host
