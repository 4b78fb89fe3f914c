#include "Storage/Server/FileSystem/LoopRecordingTrackStorage.h"

#include "Platform/Plexa/Converter.h"

using Moreld::Plexa::Converter;

void LoopRecordingTrackStorage::GetTrackProperties(const long& trackId,
                                                   Protocol::PropertyList& properties) {
    core_.GetTrackProperties(trackId, properties);
}

void LoopRecordingTrackStorage::GetNumberOfChunks(const long& trackId,
                                                  const Protocol::TimePoint& from,
                                                  const Protocol::TimePoint& to, long& count) {
    count = static_cast<long>(
        core_.GetNumberOfChunks(trackId, Converter::From(from), Converter::From(to)));
}

void LoopRecordingTrackStorage::DeleteTrack(const long& trackId,
                                            Protocol::TrackParameters& answer) {
    core_.DeleteTrack(trackId, answer);
}

void LoopRecordingTrackStorage::GetTrackSize(const long& trackId, long& size) {
    size = core_.GetMaxTrackSize(trackId);
}

void LoopRecordingTrackStorage::GetTrackInfos(const Protocol::Ids& trackIds,
                                              Protocol::TrackInfos& infos) {
    core_.GetTrackInfos(trackIds, infos);
}

void LoopRecordingTrackStorage::RemoveTrackProperties(const long& trackId,
                                                      const Protocol::PropertyList& properties) {
    core_.RemoveTrackProperties(trackId, properties);
}

void LoopRecordingTrackStorage::GetActiveWorkers(Protocol::Ids& workerIds,
                                                 Protocol::Ids& trackIds) {
    for (const auto& [worker, track] : core_.GetActiveWorkers()) {
        workerIds.add_ids(worker);
        trackIds.add_ids(track);
    }
}

void LoopRecordingTrackStorage::GrowTrack(const Protocol::TrackParameters& request,
                                          Protocol::TrackParameters& answer) {
    core_.GrowTrack(request, answer);
}

void LoopRecordingTrackStorage::GetCommandInfo(const long&, Protocol::CommandInfo& info) {
    info.Clear();
}

void LoopRecordingTrackStorage::GetRemainingSpace(long& bytes) {
    core_.GetRemainingSpace(bytes);
}

void LoopRecordingTrackStorage::GetBeginningOfTrack(const long& trackId,
                                                    Protocol::TimePoint& beginning) {
    core_.GetBeginningOfTrack(trackId, beginning);
}

void LoopRecordingTrackStorage::ClearTrack(const long& trackId) {
    core_.ClearTrack(trackId);
}

void LoopRecordingTrackStorage::GetAccumulatedDuration(const long& trackId,
                                                       const Protocol::TimePoint& from,
                                                       const Protocol::TimePoint& to,
                                                       Protocol::TimePoint& duration) {
    duration = Converter::To(
        core_.GetAccumulatedDuration(trackId, Converter::From(from), Converter::From(to)));
}

void LoopRecordingTrackStorage::Protect(const long& trackId, const Protocol::TimePoint& from,
                                        const Protocol::TimePoint& duration, long& protectionId) {
    core_.Protect(trackId, from, duration, protectionId);
}

void LoopRecordingTrackStorage::ProtectWithTerms(const long& trackId,
                                                 const Protocol::TimePoint& from,
                                                 const Protocol::TimePoint& duration,
                                                 const Protocol::ProtectionTerms& terms,
                                                 long& protectionId) {
    core_.ProtectWithTerms(trackId, from, duration, terms, protectionId);
}

void LoopRecordingTrackStorage::GetWorkerInfos(const Protocol::Ids& workerIds,
                                               Protocol::WorkerInfos& infos) {
    for (long id : workerIds.ids()) {
        Monitoring::WorkerInfo worker = core_.GetWorkerInfo(id);
        Protocol::WorkerInfo* info = infos.add_infos();
        info->set_type(static_cast<Protocol::WorkerType>(worker.type));
        info->set_worker_id(worker.workerId);
        info->set_thread_id(worker.threadId);
        info->set_track_id(worker.trackId);
        info->set_total_bytes(worker.totalBytes);
        info->set_throughput(worker.throughput);
        info->set_description(worker.description);
    }
}

void LoopRecordingTrackStorage::Unprotect(const long& protectionId) {
    core_.Unprotect(protectionId);
}

void LoopRecordingTrackStorage::GetEndOfTrack(const long& trackId, Protocol::TimePoint& end) {
    core_.GetEndOfTrack(trackId, end);
}

void LoopRecordingTrackStorage::ListProtections(Protocol::ProtectionInfos& protections) {
    core_.ListProtections(protections);
}

long LoopRecordingTrackStorage::CreateTrack(const Protocol::TrackParameters& request,
                                            Protocol::TrackParameters& answer) {
    return core_.CreateTrack(request, answer);
}

void LoopRecordingTrackStorage::GetOngoingCommands(Protocol::Ids& commandIds) {
    commandIds.clear_ids();  // this storage runs no long commands
}

void LoopRecordingTrackStorage::SetTrackProperties(const long& trackId,
                                                   const Protocol::PropertyList& properties) {
    core_.SetTrackProperties(trackId, properties);
}

void LoopRecordingTrackStorage::ListTracks(Protocol::TrackList& tracks) {
    core_.ListTracks(tracks);
}
