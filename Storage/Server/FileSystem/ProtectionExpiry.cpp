#include "Storage/Server/FileSystem/ProtectionExpiry.h"

#include <exception>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/SyncPoint.h"

ProtectionExpiry::ProtectionExpiry(LoopRecordingCommonTrackStorage& storage,
                                   std::chrono::milliseconds period)
    : storage_(storage),
      period_(period),
      logger_(tav::mr::logging::LoggingManager::GetLogger("ProtectionExpiry")),
      thread_([this] { Run(); }) {}

ProtectionExpiry::~ProtectionExpiry() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void ProtectionExpiry::Run() {
    while (WaitForPeriod())
        Sweep();
}

bool ProtectionExpiry::WaitForPeriod() {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, period_, [this] { return stopping_; });
}

void ProtectionExpiry::Sweep() {
    try {
        storage_.LiftExpiredProtections();
    } catch (const std::exception& e) {
        // A failing database now may work at the next period: keep going.
        MR_LOG(logger_, 50, "Lifting expired protections failed: " << e.what());
    }
    LOOPSTORE_SYNC_POINT("ProtectionExpiry::Swept");
}
