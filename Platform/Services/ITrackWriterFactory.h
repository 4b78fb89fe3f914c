#pragma once

#include "Platform/Services/ITrackWriter.h"

namespace MoreldStorageApi {

// Creates track writers for the host. Thread-safe: clients create writers
// from their own threads.
class ITrackWriterFactory {
  public:
    virtual ~ITrackWriterFactory() = default;

    // Returns a new writer on track `trackId`; the caller owns it. Throws
    // std::runtime_error when the track cannot be written (unknown track, a
    // writer already open on it).
    virtual ITrackWriter* Create(const long& trackId) = 0;
};

}  // namespace MoreldStorageApi
