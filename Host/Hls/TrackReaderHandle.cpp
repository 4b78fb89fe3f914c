#include "Host/Hls/TrackReaderHandle.h"

#include <stdexcept>
#include <string>

#include "Host/Http/HttpMessage.h"

namespace loopstore::hls {

TrackReaderHandle OpenTrackReader(MoreldStorageApi::Service& service, long trackId) {
    try {
        return TrackReaderHandle(service.trackReaderFactory->Create(trackId));
    } catch (const std::runtime_error& e) {
        throw host::HttpError(404,
                              "cannot read track " + std::to_string(trackId) + ": " + e.what());
    }
}

}  // namespace loopstore::hls
