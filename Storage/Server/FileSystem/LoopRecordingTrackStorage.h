#pragma once

#include "Platform/Services/ITrackStorage.h"
#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"

// The host's track storage service: every operation of the storage API,
// forwarded to the track storage core with the host's messages converted.
// Holds nothing but a reference to the core (which outlives it); catches
// nothing, so the core's errors reach the host unchanged. Thread-safe as the
// core is.
class LoopRecordingTrackStorage : public MoreldStorageApi::ITrackStorage {
  public:
    explicit LoopRecordingTrackStorage(LoopRecordingCommonTrackStorage& core) : core_(core) {}

    void GetTrackProperties(const long& trackId, Protocol::PropertyList& properties) override;
    void GetNumberOfChunks(const long& trackId, const Protocol::TimePoint& from,
                           const Protocol::TimePoint& to, long& count) override;
    void DeleteTrack(const long& trackId, Protocol::TrackParameters& answer) override;
    void GetTrackSize(const long& trackId, long& size) override;
    void GetTrackInfos(const Protocol::Ids& trackIds, Protocol::TrackInfos& infos) override;
    void RemoveTrackProperties(const long& trackId,
                               const Protocol::PropertyList& properties) override;
    void GetActiveWorkers(Protocol::Ids& workerIds, Protocol::Ids& trackIds) override;
    void GrowTrack(const Protocol::TrackParameters& request,
                   Protocol::TrackParameters& answer) override;
    void GetCommandInfo(const long& commandId, Protocol::CommandInfo& info) override;
    void GetRemainingSpace(long& bytes) override;
    void GetBeginningOfTrack(const long& trackId, Protocol::TimePoint& beginning) override;
    void ClearTrack(const long& trackId) override;
    void GetAccumulatedDuration(const long& trackId, const Protocol::TimePoint& from,
                                const Protocol::TimePoint& to,
                                Protocol::TimePoint& duration) override;
    void Protect(const long& trackId, const Protocol::TimePoint& from,
                 const Protocol::TimePoint& duration, long& protectionId) override;
    void ProtectWithTerms(const long& trackId, const Protocol::TimePoint& from,
                          const Protocol::TimePoint& duration,
                          const Protocol::ProtectionTerms& terms, long& protectionId) override;
    void GetWorkerInfos(const Protocol::Ids& workerIds, Protocol::WorkerInfos& infos) override;
    void Unprotect(const long& protectionId) override;
    void GetEndOfTrack(const long& trackId, Protocol::TimePoint& end) override;
    void ListProtections(Protocol::ProtectionInfos& protections) override;
    long CreateTrack(const Protocol::TrackParameters& request,
                     Protocol::TrackParameters& answer) override;
    void GetOngoingCommands(Protocol::Ids& commandIds) override;
    void SetTrackProperties(const long& trackId, const Protocol::PropertyList& properties) override;
    void ListTracks(Protocol::TrackList& tracks) override;

  private:
    LoopRecordingCommonTrackStorage& core_;
};
