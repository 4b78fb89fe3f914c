#include "Platform/Tools/SyncPoint.h"

#include "Platform/Tools/MutexLock.h"

namespace Moreld::Tools {

SyncPoint& SyncPoint::Instance() {
    static SyncPoint instance;
    return instance;
}

void SyncPoint::SetCallback(const std::string& point, Callback callback) {
    MutexLock lock(mutex_);
    callbacks_[point] = std::move(callback);
    enabled_ = true;
}

void SyncPoint::ClearCallback(const std::string& point) {
    MutexLock lock(mutex_);
    callbacks_.erase(point);
    enabled_ = !callbacks_.empty();
}

void SyncPoint::ClearAll() {
    MutexLock lock(mutex_);
    callbacks_.clear();
    enabled_ = false;
}

void SyncPoint::Process(const char* point) {
    Callback callback;
    {
        MutexLock lock(mutex_);
        auto it = callbacks_.find(point);
        if (it == callbacks_.end())
            return;
        callback = it->second;
    }
    callback();
}

}  // namespace Moreld::Tools
