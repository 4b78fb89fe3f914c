#include "Host/Server/TrackRetentionRpc.h"

namespace loopstore::host {

grpc::Status TrackRetentionRpc::SetTrackMaxAge(grpc::ServerContext* context,
                                               const rpc::TrackMaxAge* request, rpc::Empty*) {
    return guard_.Run(*context, "SetTrackMaxAge", [&] {
        retention_.SetTrackMaxAge(static_cast<long>(request->track_id()), request->max_age());
    });
}

}  // namespace loopstore::host
