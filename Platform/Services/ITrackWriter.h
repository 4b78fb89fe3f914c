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
    // implementation refuses one that starts before the end of the track by
    // throwing std::runtime_error, and then keeps nothing of it.
    virtual void Append(const Protocol::Chunk& chunk) = 0;

    // Sets `trackId` to the id of the written track.
    virtual void GetTrackId(long& trackId) = 0;
};

}  // namespace MoreldStorageApi
