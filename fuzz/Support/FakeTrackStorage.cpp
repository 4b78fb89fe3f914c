#include "fuzz/Support/FakeTrackStorage.h"

#include <stdexcept>
#include <string>

#include "Platform/Plexa/Converter.h"

namespace loopstore::fuzz {

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

namespace {

// Unknown tracks are refused the way the storage words it.
void RequireTrack(long trackId) {
    if (trackId <= 0)
        throw std::runtime_error("Track " + std::to_string(trackId) + " does not exist");
}

}  // namespace

void FakeTrackStorage::GetTrackProperties(const long& trackId, Protocol::PropertyList&) {
    RequireTrack(trackId);
}

void FakeTrackStorage::GetNumberOfChunks(const long& trackId, const Protocol::TimePoint& from,
                                         const Protocol::TimePoint& to, long& count) {
    RequireTrack(trackId);
    count = Converter::From(from) < Converter::From(to) ? 1 : 0;
}

void FakeTrackStorage::DeleteTrack(const long& trackId, Protocol::TrackParameters& answer) {
    RequireTrack(trackId);
    answer.set_id(trackId);
    answer.set_size(0);
    answer.set_status(1);
}

void FakeTrackStorage::GetTrackSize(const long&, long& size) {
    size = 0;
}

void FakeTrackStorage::GetTrackInfos(const Protocol::Ids& trackIds, Protocol::TrackInfos& infos) {
    for (const int64_t id : trackIds.ids())
        infos.add_infos()->set_id(id);
}

void FakeTrackStorage::RemoveTrackProperties(const long& trackId, const Protocol::PropertyList&) {
    RequireTrack(trackId);
}

void FakeTrackStorage::GetActiveWorkers(Protocol::Ids&, Protocol::Ids&) {}

void FakeTrackStorage::GrowTrack(const Protocol::TrackParameters& request,
                                 Protocol::TrackParameters& answer) {
    RequireTrack(request.id());
    answer.set_id(request.id());
    answer.set_size(request.size());
    answer.set_status(1);
}

void FakeTrackStorage::GetCommandInfo(const long& commandId, Protocol::CommandInfo& info) {
    info.set_id(commandId);
}

void FakeTrackStorage::GetRemainingSpace(long& bytes) {
    bytes = 0;
}

void FakeTrackStorage::GetBeginningOfTrack(const long&, Protocol::TimePoint& beginning) {
    beginning = Converter::To(TimePoint::FromNanoseconds(-1));
}

void FakeTrackStorage::ClearTrack(const long& trackId) {
    RequireTrack(trackId);
}

void FakeTrackStorage::GetAccumulatedDuration(const long& trackId, const Protocol::TimePoint&,
                                              const Protocol::TimePoint&,
                                              Protocol::TimePoint& duration) {
    RequireTrack(trackId);
    duration = Converter::To(TimePoint());
}

void FakeTrackStorage::Protect(const long& trackId, const Protocol::TimePoint& from,
                               const Protocol::TimePoint& duration, long& protectionId) {
    RequireTrack(trackId);
    const TimePoint end = Converter::From(from) + Converter::From(duration);
    if (end <= Converter::From(from))
        throw std::runtime_error("Duration must be strictly positive");
    protectionId = ++lastProtectionId_;
}

void FakeTrackStorage::ProtectWithTerms(const long& trackId, const Protocol::TimePoint& from,
                                        const Protocol::TimePoint& duration,
                                        const Protocol::ProtectionTerms&, long& protectionId) {
    Protect(trackId, from, duration, protectionId);
}

void FakeTrackStorage::GetWorkerInfos(const Protocol::Ids& workerIds,
                                      Protocol::WorkerInfos& infos) {
    for (const int64_t id : workerIds.ids())
        infos.add_infos()->set_worker_id(id);
}

void FakeTrackStorage::Unprotect(const long&) {}

void FakeTrackStorage::GetEndOfTrack(const long&, Protocol::TimePoint& end) {
    end = Converter::To(TimePoint::FromNanoseconds(-1));
}

void FakeTrackStorage::ListProtections(Protocol::ProtectionInfos&) {}

long FakeTrackStorage::CreateTrack(const Protocol::TrackParameters& request,
                                   Protocol::TrackParameters& answer) {
    if (request.size() <= 0)
        return -1;
    answer.set_id(request.id() == 0 ? 1 : request.id());
    answer.set_size(request.size());
    answer.set_status(1);
    return 1;
}

void FakeTrackStorage::GetOngoingCommands(Protocol::Ids&) {}

void FakeTrackStorage::SetTrackProperties(const long& trackId, const Protocol::PropertyList&) {
    RequireTrack(trackId);
}

void FakeTrackStorage::ListTracks(Protocol::TrackList&) {}

}  // namespace loopstore::fuzz
