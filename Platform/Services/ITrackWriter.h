#pragma once

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Services/DynamicObject.h"

namespace MoreldStorageApi {

// Appends chunks to one track. Created by an ITrackWriterFactory, owned by
// the host. One thread at a time calls it; implementations may work in the
// background between calls.
class ITrackWriter : public DynamicObject {
  public:
    // Queues `chunk` for writing. Chunks come in time order; an
    // implementation refuses one it cannot store (it starts before the end
    // of the track, does not fit the track's files, ...) by throwing
    // std::runtime_error, and then keeps nothing of it. A chunk accepted
    // earlier and lost since is reported the same way, by the next call.
    virtual void Append(const Protocol::Chunk& chunk) = 0;

    // Waits until every chunk appended so far is stored or has failed, and
    // sets `stored` to the number of chunks this writer has stored. Throws
    // std::runtime_error saying how many chunks could not be stored, and
    // why, when some accepted chunk was lost since the last report.
    virtual void WaitUntilStored(long& stored) = 0;

    // Sets `trackId` to the id of the written track.
    virtual void GetTrackId(long& trackId) = 0;
};

}  // namespace MoreldStorageApi
