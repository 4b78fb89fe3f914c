#include "Host/Server/TrackStorageRpc.h"

#include <string>

#include "Host/Server/RequestChecks.h"

namespace loopstore::host {

namespace {

// The storage's interface takes `long` ids and sizes; the wire carries int64.
long Long(int64_t value) {
    return static_cast<long>(value);
}

}  // namespace

TrackStorageRpc::TrackStorageRpc(MoreldStorageApi::ITrackStorage& storage, const CallGuard& guard)
    : storage_(storage), guard_(guard) {}

grpc::Status TrackStorageRpc::CreateTrack(Context* context,
                                          const Protocol::TrackParameters* request,
                                          rpc::CreateTrackAnswer* answer) {
    return guard_.Run(*context, "CreateTrack", [&] {
        answer->set_status(storage_.CreateTrack(*request, *answer->mutable_answer()));
    });
}

grpc::Status TrackStorageRpc::GrowTrack(Context* context, const Protocol::TrackParameters* request,
                                        Protocol::TrackParameters* answer) {
    return guard_.Run(*context, "GrowTrack", [&] { storage_.GrowTrack(*request, *answer); });
}

grpc::Status TrackStorageRpc::DeleteTrack(Context* context, const rpc::TrackId* request,
                                          Protocol::TrackParameters* answer) {
    return guard_.Run(*context, "DeleteTrack",
                      [&] { storage_.DeleteTrack(Long(request->id()), *answer); });
}

grpc::Status TrackStorageRpc::ClearTrack(Context* context, const rpc::TrackId* request,
                                         rpc::Empty*) {
    return guard_.Run(*context, "ClearTrack", [&] { storage_.ClearTrack(Long(request->id())); });
}

grpc::Status TrackStorageRpc::ListTracks(Context* context, const rpc::Empty*,
                                         Protocol::TrackList* answer) {
    return guard_.Run(*context, "ListTracks", [&] { storage_.ListTracks(*answer); });
}

grpc::Status TrackStorageRpc::GetTrackInfos(Context* context, const Protocol::Ids* request,
                                            Protocol::TrackInfos* answer) {
    return guard_.Run(*context, "GetTrackInfos",
                      [&] { storage_.GetTrackInfos(*request, *answer); });
}

grpc::Status TrackStorageRpc::GetTrackSize(Context* context, const rpc::TrackId* request,
                                           rpc::Bytes* answer) {
    return guard_.Run(*context, "GetTrackSize", [&] {
        long size = 0;
        storage_.GetTrackSize(Long(request->id()), size);
        answer->set_value(size);
    });
}

grpc::Status TrackStorageRpc::GetRemainingSpace(Context* context, const rpc::Empty*,
                                                rpc::Bytes* answer) {
    return guard_.Run(*context, "GetRemainingSpace", [&] {
        long bytes = 0;
        storage_.GetRemainingSpace(bytes);
        answer->set_value(bytes);
    });
}

grpc::Status TrackStorageRpc::GetBeginningOfTrack(Context* context, const rpc::TrackId* request,
                                                  Protocol::TimePoint* answer) {
    return guard_.Run(*context, "GetBeginningOfTrack",
                      [&] { storage_.GetBeginningOfTrack(Long(request->id()), *answer); });
}

grpc::Status TrackStorageRpc::GetEndOfTrack(Context* context, const rpc::TrackId* request,
                                            Protocol::TimePoint* answer) {
    return guard_.Run(*context, "GetEndOfTrack",
                      [&] { storage_.GetEndOfTrack(Long(request->id()), *answer); });
}

grpc::Status TrackStorageRpc::GetNumberOfChunks(Context* context, const rpc::Range* request,
                                                rpc::Count* answer) {
    return guard_.Run(*context, "GetNumberOfChunks", [&] {
        long count = 0;
        storage_.GetNumberOfChunks(Long(request->track_id()), request->from(), request->to(),
                                   count);
        answer->set_value(count);
    });
}

grpc::Status TrackStorageRpc::GetAccumulatedDuration(Context* context, const rpc::Range* request,
                                                     Protocol::TimePoint* answer) {
    return guard_.Run(*context, "GetAccumulatedDuration", [&] {
        storage_.GetAccumulatedDuration(Long(request->track_id()), request->from(), request->to(),
                                        *answer);
    });
}

grpc::Status TrackStorageRpc::Protect(Context* context, const rpc::ProtectRequest* request,
                                      rpc::ProtectionId* answer) {
    return guard_.Run(*context, "Protect", [&] {
        RequestChecks::EndOf(request->from().nanoseconds(), request->duration().nanoseconds(),
                             "T" + std::to_string(request->track_id()) + ": a protection");
        long id = 0;
        Protocol::ProtectionTerms terms;
        terms.set_label(request->label());
        if (request->has_expires())
            *terms.mutable_expires() = request->expires();
        storage_.ProtectWithTerms(Long(request->track_id()), request->from(), request->duration(),
                                  terms, id);
        answer->set_id(id);
    });
}

grpc::Status TrackStorageRpc::Unprotect(Context* context, const rpc::ProtectionId* request,
                                        rpc::Empty*) {
    return guard_.Run(*context, "Unprotect", [&] { storage_.Unprotect(Long(request->id())); });
}

grpc::Status TrackStorageRpc::ListProtections(Context* context, const rpc::Empty*,
                                              Protocol::ProtectionInfos* answer) {
    return guard_.Run(*context, "ListProtections", [&] { storage_.ListProtections(*answer); });
}

grpc::Status TrackStorageRpc::SetTrackProperties(Context* context,
                                                 const rpc::TrackProperties* request, rpc::Empty*) {
    return guard_.Run(*context, "SetTrackProperties", [&] {
        storage_.SetTrackProperties(Long(request->track_id()), request->properties());
    });
}

grpc::Status TrackStorageRpc::GetTrackProperties(Context* context, const rpc::TrackId* request,
                                                 Protocol::PropertyList* answer) {
    return guard_.Run(*context, "GetTrackProperties",
                      [&] { storage_.GetTrackProperties(Long(request->id()), *answer); });
}

grpc::Status TrackStorageRpc::RemoveTrackProperties(Context* context,
                                                    const rpc::TrackProperties* request,
                                                    rpc::Empty*) {
    return guard_.Run(*context, "RemoveTrackProperties", [&] {
        storage_.RemoveTrackProperties(Long(request->track_id()), request->properties());
    });
}

grpc::Status TrackStorageRpc::GetActiveWorkers(Context* context, const rpc::Empty*,
                                               rpc::ActiveWorkers* answer) {
    return guard_.Run(*context, "GetActiveWorkers", [&] {
        storage_.GetActiveWorkers(*answer->mutable_worker_ids(), *answer->mutable_track_ids());
    });
}

grpc::Status TrackStorageRpc::GetWorkerInfos(Context* context, const Protocol::Ids* request,
                                             Protocol::WorkerInfos* answer) {
    return guard_.Run(*context, "GetWorkerInfos",
                      [&] { storage_.GetWorkerInfos(*request, *answer); });
}

grpc::Status TrackStorageRpc::GetOngoingCommands(Context* context, const rpc::Empty*,
                                                 Protocol::Ids* answer) {
    return guard_.Run(*context, "GetOngoingCommands",
                      [&] { storage_.GetOngoingCommands(*answer); });
}

grpc::Status TrackStorageRpc::GetCommandInfo(Context* context, const rpc::TrackId* request,
                                             Protocol::CommandInfo* answer) {
    return guard_.Run(*context, "GetCommandInfo",
                      [&] { storage_.GetCommandInfo(Long(request->id()), *answer); });
}

}  // namespace loopstore::host
