#include "Storage/Server/TrackLock.h"

#include <set>
#include <stdexcept>
#include <string>

#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/MutexLock.h"

namespace {

struct HeldTracks {
    Moreld::Tools::Mutex mutex;
    std::set<long> ids GUARDED_BY(mutex);
};

// Never destroyed: a writer may still be released during static destruction.
HeldTracks& Held() {
    static HeldTracks* const held = new HeldTracks();
    return *held;
}

}  // namespace

TrackLock::TrackLock(long trackId) : trackId_(trackId) {
    HeldTracks& held = Held();
    Moreld::Tools::MutexLock lock(held.mutex);
    if (!held.ids.insert(trackId).second) {
        throw MoreldStorageApi::StoreBusyError("Track " + std::to_string(trackId) +
                                               " is already being written to");
    }
}

TrackLock::~TrackLock() {
    HeldTracks& held = Held();
    Moreld::Tools::MutexLock lock(held.mutex);
    held.ids.erase(trackId_);
}
