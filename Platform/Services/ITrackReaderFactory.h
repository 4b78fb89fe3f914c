#pragma once

#include "Platform/Services/ITrackReader.h"

namespace MoreldStorageApi {

// Creates track readers for the host. Thread-safe: clients create readers
// from their own threads.
class ITrackReaderFactory {
  public:
    virtual ~ITrackReaderFactory() = default;

    // Returns a new reader on track `trackId`; the caller owns it. Throws
    // std::runtime_error when the track cannot be read (unknown track).
    virtual ITrackReader* Create(const long& trackId) = 0;
};

}  // namespace MoreldStorageApi
