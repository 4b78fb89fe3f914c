#pragma once

#include "Platform/Protocol/Protocol.pb.h"

namespace MoreldStorageApi {

// The track storage service the host calls for everything but reading and
// writing chunks: track lifecycle, queries, protections, properties and
// worker monitoring. Owned by the Service that holds it. Implementations are
// called from many host threads at once and must be thread-safe.
//
// Every result goes to an out parameter; only CreateTrack also returns a
// status. Failures are thrown as std::runtime_error. Time points and
// durations are Protocol::TimePoint nanoseconds; the answer for a missing
// time point is -1 ns. The slot order of the operations is the host's and
// must not change.
class ITrackStorage {
  public:
    virtual ~ITrackStorage() = default;

    // The track's properties, in key order; empty for an unknown track.
    virtual void GetTrackProperties(const long& trackId, Protocol::PropertyList& properties) = 0;

    // The number of chunks of the track between two instants.
    virtual void GetNumberOfChunks(const long& trackId, const Protocol::TimePoint& from,
                                   const Protocol::TimePoint& to, long& count) = 0;

    // Deletes the track, or shrinks it to its protected files; `answer`
    // carries the id, the remaining size in bytes and status 1.
    virtual void DeleteTrack(const long& trackId, Protocol::TrackParameters& answer) = 0;

    // The track's size in bytes (the files it owns); 0 for an unknown track.
    virtual void GetTrackSize(const long& trackId, long& size) = 0;

    // One TrackInfo per known track among `trackIds`; unknown ids are skipped.
    virtual void GetTrackInfos(const Protocol::Ids& trackIds, Protocol::TrackInfos& infos) = 0;

    // Removes the named properties of the track.
    virtual void RemoveTrackProperties(const long& trackId,
                                       const Protocol::PropertyList& properties) = 0;

    // The active workers: `workerIds[i]` works on track `trackIds[i]`.
    virtual void GetActiveWorkers(Protocol::Ids& workerIds, Protocol::Ids& trackIds) = 0;

    // Resizes a track by the signed byte change in `request`'s size; `answer`
    // carries the id, the new size and status 1.
    virtual void GrowTrack(const Protocol::TrackParameters& request,
                           Protocol::TrackParameters& answer) = 0;

    // The state of one long-running command.
    virtual void GetCommandInfo(const long& commandId, Protocol::CommandInfo& info) = 0;

    // Bytes still free in the pool.
    virtual void GetRemainingSpace(long& bytes) = 0;

    // The time point of the track's first chunk.
    virtual void GetBeginningOfTrack(const long& trackId, Protocol::TimePoint& beginning) = 0;

    // Empties the track of its chunks, keeping its files.
    virtual void ClearTrack(const long& trackId) = 0;

    // The summed duration of the track's chunks between two instants.
    virtual void GetAccumulatedDuration(const long& trackId, const Protocol::TimePoint& from,
                                        const Protocol::TimePoint& to,
                                        Protocol::TimePoint& duration) = 0;

    // Protects [from, from + duration) of the track against recycling;
    // `protectionId` receives the new protection's id.
    virtual void Protect(const long& trackId, const Protocol::TimePoint& from,
                         const Protocol::TimePoint& duration, long& protectionId) = 0;

    // Protect, with a label and an expiry (`terms`); an expiry that is not
    // after now is refused.
    virtual void ProtectWithTerms(const long& trackId, const Protocol::TimePoint& from,
                                  const Protocol::TimePoint& duration,
                                  const Protocol::ProtectionTerms& terms, long& protectionId) = 0;

    // One WorkerInfo per id of `workerIds`, in order.
    virtual void GetWorkerInfos(const Protocol::Ids& workerIds, Protocol::WorkerInfos& infos) = 0;

    // Removes a protection; an unknown id is not an error.
    virtual void Unprotect(const long& protectionId) = 0;

    // The end (time point + duration) of the track's last chunk.
    virtual void GetEndOfTrack(const long& trackId, Protocol::TimePoint& end) = 0;

    // Every protection of every track.
    virtual void ListProtections(Protocol::ProtectionInfos& protections) = 0;

    // Creates a track of `request`'s size (id 0: the next free id). Returns 1
    // and fills `answer` with the id, the size in bytes and status 1 on
    // success; returns -1 when the request is refused.
    virtual long CreateTrack(const Protocol::TrackParameters& request,
                             Protocol::TrackParameters& answer) = 0;

    // The ids of the long-running commands in progress.
    virtual void GetOngoingCommands(Protocol::Ids& commandIds) = 0;

    // Inserts or updates the given properties of the track.
    virtual void SetTrackProperties(const long& trackId,
                                    const Protocol::PropertyList& properties) = 0;

    // The ids of all tracks, ascending.
    virtual void ListTracks(Protocol::TrackList& tracks) = 0;
};

}  // namespace MoreldStorageApi
