#pragma once

#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Server/CallGuard.h"
#include "Platform/Services/ITrackRetention.h"

namespace loopstore::host {

// Serves retention by age: one RPC per ITrackRetention operation, errors
// mapped by CallGuard.
//
// Refers to `retention` and `guard`, which must outlive it. Called by gRPC's
// threads concurrently; keeps no state, the storage is thread-safe.
class TrackRetentionRpc final : public rpc::TrackRetention::Service {
  public:
    TrackRetentionRpc(MoreldStorageApi::ITrackRetention& retention, const CallGuard& guard)
        : retention_(retention), guard_(guard) {}

    grpc::Status SetTrackMaxAge(grpc::ServerContext* context, const rpc::TrackMaxAge* request,
                                rpc::Empty* answer) override;

  private:
    MoreldStorageApi::ITrackRetention& retention_;
    const CallGuard& guard_;
};

}  // namespace loopstore::host
