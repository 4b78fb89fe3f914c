#pragma once

#include <cstdint>
#include <vector>

#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Server/CallGuard.h"
#include "Host/Server/PeerServiceFactory.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Services/ITrackReader.h"

namespace loopstore::host {

// Serves reading: a Session keeps one track reader for as long as its
// stream and answers each request with one reply; Export streams every
// chunk that overlaps a time range. A time outside the track is not an
// error: the reply says found = false, or the export ends.
//
// Refers to `services` and `guard`, which must outlive it. gRPC calls it
// from many threads at once; each call owns its reader.
class TrackReaderRpc final : public rpc::TrackReader::Service {
  public:
    TrackReaderRpc(const PeerServiceFactory& services, const CallGuard& guard);

    // The first request must carry `open`; it opens the reader and is then
    // answered like every other request.
    grpc::Status Session(
        grpc::ServerContext* context,
        grpc::ServerReaderWriter<rpc::ReadReply, rpc::ReadRequest>* stream) override;

    // INVALID_ARGUMENT when `to` is before `from`. Records that cannot be
    // read are skipped; their number and starts go back in the trailing
    // metadata (rpc::kDamagedRecordsKey, rpc::kDamagedAtKey).
    grpc::Status Export(grpc::ServerContext* context, const rpc::ExportRequest* request,
                        grpc::ServerWriter<Protocol::Chunk>* stream) override;

    // The argument checks and answers of the two calls, apart from the
    // network. The track the first request of a session names; throws
    // std::invalid_argument when it names none.
    static long OpenedTrack(const rpc::ReadRequest& first);
    // Answers one session request with `reader`.
    static rpc::ReadReply Answer(MoreldStorageApi::ITrackReader& reader,
                                 const rpc::ReadRequest& request);
    // Throws std::invalid_argument when the export range ends before it starts.
    static void CheckRange(const rpc::ExportRequest& request);

  private:
    void Serve(grpc::ServerContext& context,
               grpc::ServerReaderWriter<rpc::ReadReply, rpc::ReadRequest>& stream);
    void Walk(grpc::ServerContext& context, const rpc::ExportRequest& request,
              grpc::ServerWriter<Protocol::Chunk>& stream);
    void ReportDamaged(grpc::ServerContext& context, long trackId,
                       const std::vector<int64_t>& damaged);

    const PeerServiceFactory& services_;
    const CallGuard& guard_;
    tav::mr::logging::Logger logger_;
};

}  // namespace loopstore::host
