#include "Storage/Server/TrackLock.h"

#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

#include "Platform/Services/StorageErrors.h"

namespace {

struct HeldTracks {
    std::mutex mutex;
    std::set<long> ids;  // guarded by mutex
};

// Never destroyed: a writer may still be released during static destruction.
HeldTracks& Held() {
    static HeldTracks* const held = new HeldTracks();
    return *held;
}

}  // namespace

TrackLock::TrackLock(long trackId) : trackId_(trackId) {
    HeldTracks& held = Held();
    std::lock_guard<std::mutex> lock(held.mutex);
    if (!held.ids.insert(trackId).second) {
        throw MoreldStorageApi::StoreBusyError("Track " + std::to_string(trackId) +
                                               " is already being written to");
    }
}

TrackLock::~TrackLock() {
    HeldTracks& held = Held();
    std::lock_guard<std::mutex> lock(held.mutex);
    held.ids.erase(trackId_);
}
