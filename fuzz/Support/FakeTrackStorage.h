#pragma once

#include "Platform/Services/ITrackStorage.h"

namespace loopstore::fuzz {

// A track storage that keeps nothing and answers every call at once, for the
// fuzzing of the RPC handlers without a store. It does the arithmetic the
// interface names (a protection covers [from, from + duration)), so that a
// handler passing on arguments a storage cannot compute with is found.
//
// Thread-compatible: one fuzzer thread calls it.
class FakeTrackStorage : public MoreldStorageApi::ITrackStorage {
  public:
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
    long lastProtectionId_ = 0;
};

}  // namespace loopstore::fuzz
