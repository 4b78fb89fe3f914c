#pragma once

#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Server/CallGuard.h"
#include "Host/Server/PeerServiceFactory.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Services/ITrackWriter.h"

namespace loopstore::host {

// Serves write streams: one track writer per stream, created from the first
// message and destroyed (so drained, its last file saved) when the stream
// ends, whether the client closed it, a chunk was refused or the server is
// stopping.
//
// Refers to `services` and `guard`, which must outlive it. gRPC calls Write
// from many threads at once; each call owns its writer.
class TrackWriterRpc final : public rpc::TrackWriter::Service {
  public:
    TrackWriterRpc(const PeerServiceFactory& services, const CallGuard& guard);

    // OK with the summary when the client closed the stream; otherwise the
    // refusal's status, whose text ends with how many chunks of the stream
    // were stored (the chunks accepted before it are kept).
    grpc::Status Write(grpc::ServerContext* context, grpc::ServerReader<rpc::WriteRequest>* stream,
                       rpc::WriteSummary* summary) override;

    // The argument checks of a stream, apart from the network. The track the
    // first message names; throws std::invalid_argument when it names none.
    static long OpenedTrack(const rpc::WriteRequest& first);
    // Hands the chunk, or the batch's chunks in order, of a later message of
    // the stream of `trackId` to `writer` and counts each in `summary`.
    // Throws std::invalid_argument when the message carries no chunk or a
    // chunk ends beyond the range of time points, and what the writer
    // throws; `summary` then counts the chunks before the refused one. A
    // refused chunk's error ends with how many chunks the stream stored.
    static void Accept(long trackId, const rpc::WriteRequest& request,
                       MoreldStorageApi::ITrackWriter& writer, rpc::WriteSummary& summary);

  private:
    static void AcceptChunk(long trackId, const Protocol::Chunk& chunk,
                            MoreldStorageApi::ITrackWriter& writer, rpc::WriteSummary& summary);
    // " (N chunks of this stream stored)", after any loss the writer reports.
    static std::string StoredSoFar(MoreldStorageApi::ITrackWriter& writer);
    // A refusal is passed on with the number of chunks the stream stored.
    static void AppendOrSayWhatWasStored(MoreldStorageApi::ITrackWriter& writer,
                                         const Protocol::Chunk& chunk);
    void Record(grpc::ServerContext& context, grpc::ServerReader<rpc::WriteRequest>& stream,
                rpc::WriteSummary& summary);

    const PeerServiceFactory& services_;
    const CallGuard& guard_;
    tav::mr::logging::Logger logger_;
};

}  // namespace loopstore::host
