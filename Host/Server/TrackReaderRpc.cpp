#include "Host/Server/TrackReaderRpc.h"

#include <stdexcept>
#include <string>

#include "Host/Rpc/WireConstants.h"
#include "Host/Server/RangeExporter.h"
#include "Platform/Logging/LoggingManager.h"

namespace loopstore::host {

TrackReaderRpc::TrackReaderRpc(const PeerServiceFactory& services, const CallGuard& guard)
    : services_(services),
      guard_(guard),
      logger_(tav::mr::logging::LoggingManager::GetLogger("TrackReaderRpc")) {}

grpc::Status TrackReaderRpc::Session(
    grpc::ServerContext* context,
    grpc::ServerReaderWriter<rpc::ReadReply, rpc::ReadRequest>* stream) {
    return guard_.Run(*context, "Session", [&] { Serve(*context, *stream); });
}

grpc::Status TrackReaderRpc::Export(grpc::ServerContext* context, const rpc::ExportRequest* request,
                                    grpc::ServerWriter<Protocol::Chunk>* stream) {
    return guard_.Run(*context, "Export", [&] { Walk(*context, *request, *stream); });
}

long TrackReaderRpc::OpenedTrack(const rpc::ReadRequest& first) {
    if (!first.has_open())
        throw std::invalid_argument("The first request of a read session must name its track");
    return static_cast<long>(first.open().track_id());
}

void TrackReaderRpc::CheckRange(const rpc::ExportRequest& request) {
    const int64_t from = request.from().nanoseconds();
    const int64_t to = request.to().nanoseconds();
    if (to < from) {
        throw std::invalid_argument("T" + std::to_string(request.track_id()) +
                                    ": export range ends at " + std::to_string(to) +
                                    " ns, before its start at " + std::to_string(from) + " ns");
    }
}

rpc::ReadReply TrackReaderRpc::Answer(MoreldStorageApi::ITrackReader& reader,
                                      const rpc::ReadRequest& request) {
    rpc::ReadReply reply;
    bool found = false;
    switch (request.operation()) {
        case rpc::ReadRequest::GET_CHUNK:
            reader.GetChunk(request.at(), request.keys(), *reply.mutable_chunk(), found);
            break;
        case rpc::ReadRequest::GET_NEXT_CHUNK:
            reader.GetNextChunk(request.at(), request.keys(), *reply.mutable_chunk(), found);
            break;
        case rpc::ReadRequest::GET_PREVIOUS_CHUNK:
            reader.GetPreviousChunk(request.at(), request.keys(), *reply.mutable_chunk(), found);
            break;
        case rpc::ReadRequest::NEXT_TIME_POINT:
            reader.NextTimePoint(request.at(), *reply.mutable_time_point(), found);
            break;
        case rpc::ReadRequest::PREVIOUS_TIME_POINT:
            reader.PreviousTimePoint(request.at(), *reply.mutable_time_point(), found);
            break;
        default:
            throw std::invalid_argument("Unknown read operation " +
                                        std::to_string(request.operation()));
    }
    reply.set_found(found);
    return reply;
}

void TrackReaderRpc::Serve(grpc::ServerContext& context,
                           grpc::ServerReaderWriter<rpc::ReadReply, rpc::ReadRequest>& stream) {
    rpc::ReadRequest request;
    if (!stream.Read(&request))
        return;
    const long trackId = OpenedTrack(request);
    // Declared after the service that made it, the reader is destroyed first.
    std::unique_ptr<MoreldStorageApi::Service> service = services_.Construct(context);
    ClientObject<MoreldStorageApi::ITrackReader> reader(
        service->trackReaderFactory->Create(trackId));
    MR_LOG(logger_, 20, "T" << trackId << ": read session opened by " << context.peer());
    do {
        if (!stream.Write(Answer(*reader, request)))
            break;  // the client went away
    } while (stream.Read(&request));
}

void TrackReaderRpc::ReportDamaged(grpc::ServerContext& context, long trackId,
                                   const std::vector<int64_t>& damaged) {
    if (damaged.empty())
        return;
    std::string listed;
    for (size_t i = 0; i < damaged.size() && i < rpc::kMaxDamagedListed; ++i)
        listed += (i == 0 ? "" : ",") + std::to_string(damaged[i]);
    context.AddTrailingMetadata(rpc::kDamagedRecordsKey, std::to_string(damaged.size()));
    context.AddTrailingMetadata(rpc::kDamagedAtKey, listed);
    MR_LOG(logger_, 40,
           "T" << trackId << ": export to " << context.peer() << " skipped " << damaged.size()
               << " damaged records");
}

void TrackReaderRpc::Walk(grpc::ServerContext& context, const rpc::ExportRequest& request,
                          grpc::ServerWriter<Protocol::Chunk>& stream) {
    const long trackId = static_cast<long>(request.track_id());
    const int64_t to = request.to().nanoseconds();
    CheckRange(request);
    std::unique_ptr<MoreldStorageApi::Service> service = services_.Construct(context);
    ClientObject<MoreldStorageApi::ITrackReader> reader(
        service->trackReaderFactory->Create(trackId));
    RangeExporter exporter(*reader, trackId, request.keys());
    const long sent = exporter.Run(request.from(), to, [&](const Protocol::Chunk& chunk) {
        return !context.IsCancelled() && stream.Write(chunk);
    });
    ReportDamaged(context, trackId, exporter.Damaged());
    MR_LOG(logger_, 20, "T" << trackId << ": exported " << sent << " chunks to " << context.peer());
}

}  // namespace loopstore::host
