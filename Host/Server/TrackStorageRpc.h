#pragma once

#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Server/CallGuard.h"
#include "Platform/Services/ITrackStorage.h"

namespace loopstore::host {

// Serves the track storage operations, one RPC per ITrackStorage operation,
// each answered by the storage and its errors mapped by CallGuard.
//
// Refers to `storage` and `guard`, which must outlive it. Called by gRPC's
// threads concurrently; keeps no state, the storage is thread-safe.
class TrackStorageRpc final : public rpc::TrackStorage::Service {
  public:
    TrackStorageRpc(MoreldStorageApi::ITrackStorage& storage, const CallGuard& guard);

    using Context = grpc::ServerContext;

    grpc::Status CreateTrack(Context* context, const Protocol::TrackParameters* request,
                             rpc::CreateTrackAnswer* answer) override;
    grpc::Status GrowTrack(Context* context, const Protocol::TrackParameters* request,
                           Protocol::TrackParameters* answer) override;
    grpc::Status DeleteTrack(Context* context, const rpc::TrackId* request,
                             Protocol::TrackParameters* answer) override;
    grpc::Status ClearTrack(Context* context, const rpc::TrackId* request,
                            rpc::Empty* answer) override;
    grpc::Status ListTracks(Context* context, const rpc::Empty* request,
                            Protocol::TrackList* answer) override;
    grpc::Status GetTrackInfos(Context* context, const Protocol::Ids* request,
                               Protocol::TrackInfos* answer) override;
    grpc::Status GetTrackSize(Context* context, const rpc::TrackId* request,
                              rpc::Bytes* answer) override;
    grpc::Status GetRemainingSpace(Context* context, const rpc::Empty* request,
                                   rpc::Bytes* answer) override;
    grpc::Status GetBeginningOfTrack(Context* context, const rpc::TrackId* request,
                                     Protocol::TimePoint* answer) override;
    grpc::Status GetEndOfTrack(Context* context, const rpc::TrackId* request,
                               Protocol::TimePoint* answer) override;
    grpc::Status GetNumberOfChunks(Context* context, const rpc::Range* request,
                                   rpc::Count* answer) override;
    grpc::Status GetAccumulatedDuration(Context* context, const rpc::Range* request,
                                        Protocol::TimePoint* answer) override;
    grpc::Status Protect(Context* context, const rpc::ProtectRequest* request,
                         rpc::ProtectionId* answer) override;
    grpc::Status Unprotect(Context* context, const rpc::ProtectionId* request,
                           rpc::Empty* answer) override;
    grpc::Status ListProtections(Context* context, const rpc::Empty* request,
                                 Protocol::ProtectionInfos* answer) override;
    grpc::Status SetTrackProperties(Context* context, const rpc::TrackProperties* request,
                                    rpc::Empty* answer) override;
    grpc::Status GetTrackProperties(Context* context, const rpc::TrackId* request,
                                    Protocol::PropertyList* answer) override;
    grpc::Status RemoveTrackProperties(Context* context, const rpc::TrackProperties* request,
                                       rpc::Empty* answer) override;
    grpc::Status GetActiveWorkers(Context* context, const rpc::Empty* request,
                                  rpc::ActiveWorkers* answer) override;
    grpc::Status GetWorkerInfos(Context* context, const Protocol::Ids* request,
                                Protocol::WorkerInfos* answer) override;
    grpc::Status GetOngoingCommands(Context* context, const rpc::Empty* request,
                                    Protocol::Ids* answer) override;
    grpc::Status GetCommandInfo(Context* context, const rpc::TrackId* request,
                                Protocol::CommandInfo* answer) override;

  private:
    MoreldStorageApi::ITrackStorage& storage_;
    const CallGuard& guard_;
};

}  // namespace loopstore::host
