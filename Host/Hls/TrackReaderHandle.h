#pragma once

#include <memory>

#include "Platform/Services/ITrackReader.h"
#include "Platform/Services/Service.h"

namespace loopstore::hls {

// Deletes a reader the way the storage API asks: DestroyOnServer, then
// delete.
struct ReaderDeleter {
    void operator()(MoreldStorageApi::ITrackReader* reader) const {
        reader->DestroyOnServer();
        delete reader;
    }
};

// A reader owned for the length of one request.
using TrackReaderHandle = std::unique_ptr<MoreldStorageApi::ITrackReader, ReaderDeleter>;

// A new reader on track `trackId`. Throws HttpError 404 when the storage
// refuses it (no such track).
TrackReaderHandle OpenTrackReader(MoreldStorageApi::Service& service, long trackId);

}  // namespace loopstore::hls
