#pragma once

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Services/DynamicObject.h"

namespace MoreldStorageApi {

// Reads the chunks of one track by time point. Created by an
// ITrackReaderFactory, owned by the host; one thread at a time calls it.
//
// A time point outside the track is not an error: the operation sets `found`
// to false and leaves its answer as it is. Chunk answers carry only the
// chunk properties whose keys are in `keys`.
class ITrackReader : public DynamicObject {
  public:
    // The time point of the first chunk that starts after `timePoint`.
    virtual void NextTimePoint(const Protocol::TimePoint& timePoint, Protocol::TimePoint& next,
                               bool& found) = 0;

    // The chunk containing `timePoint`.
    virtual void GetChunk(const Protocol::TimePoint& timePoint, const Protocol::KeyList& keys,
                          Protocol::Chunk& chunk, bool& found) = 0;

    // Sets `trackId` to the id of the read track.
    virtual void GetTrackId(long& trackId) = 0;

    // The time point of the last chunk that ends at or before `timePoint`, else
    // of the chunk before the one that holds it.
    virtual void PreviousTimePoint(const Protocol::TimePoint& timePoint,
                                   Protocol::TimePoint& previous, bool& found) = 0;

    // The chunk PreviousTimePoint() names.
    virtual void GetPreviousChunk(const Protocol::TimePoint& timePoint,
                                  const Protocol::KeyList& keys, Protocol::Chunk& chunk,
                                  bool& found) = 0;

    // The chunk NextTimePoint() names.
    virtual void GetNextChunk(const Protocol::TimePoint& timePoint, const Protocol::KeyList& keys,
                              Protocol::Chunk& chunk, bool& found) = 0;

    // Waits up to `timeout` milliseconds for a chunk at `timePoint` to become
    // readable; `result` tells whether it did.
    virtual void Wait(const Protocol::TimePoint& timePoint, const int& timeout, bool& result) = 0;
};

}  // namespace MoreldStorageApi
