#pragma once

#include "Platform/Protocol/Protocol.pb.h"

namespace MoreldStorageApi {

// Retention by age: how long a track keeps its content. A track's policy is
// stored with the track and removed with it; the storage gives back, as
// ClearTrack does, the unprotected content older than the limit, at once
// and then periodically. Its state shows in ITrackStorage::GetTrackInfos
// (max_age, oldest).
//
// Owned by the Service that holds it; called from many host threads at once
// and must be thread-safe. Failures are thrown as std::runtime_error.
class ITrackRetention {
  public:
    virtual ~ITrackRetention() = default;

    // Keeps the track's content no longer than `maxAge` (nanoseconds); 0
    // removes the limit. An unknown track or a negative age throws.
    virtual void SetTrackMaxAge(const long& trackId, const Protocol::TimePoint& maxAge) = 0;
};

}  // namespace MoreldStorageApi
