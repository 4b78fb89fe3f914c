#include "Storage/Server/FileSystem/TrackRetention.h"

#include "Platform/Logging/LoggingManager.h"

namespace {

// now - maxAge, or false when that lies before the first time point (then
// nothing is that old).
bool Cutoff(Moreld::Time::TimePoint now, Moreld::Time::TimePoint maxAge,
            Moreld::Time::TimePoint& cutoff) {
    int64_t ns = 0;
    if (__builtin_sub_overflow(now.ToNanoseconds(), maxAge.ToNanoseconds(), &ns))
        return false;
    cutoff = Moreld::Time::TimePoint::FromNanoseconds(ns);
    return true;
}

}  // namespace

TrackRetention::TrackRetention()
    : clock_(&TimePoint::Now),
      logger_(tav::mr::logging::LoggingManager::GetLogger("TrackRetention")) {}

void TrackRetention::SetClock(Clock clock) {
    clock_ = clock ? std::move(clock) : Clock(&TimePoint::Now);
}

void TrackRetention::SetMaxAge(long id, LoopRecordingFileManager& manager,
                               const TimePoint& maxAge) {
    manager.SetMaxAge(maxAge);
    Purge(id, manager, Now());
}

size_t TrackRetention::Purge(long id, LoopRecordingFileManager& manager, const TimePoint& now) {
    const TimePoint maxAge = manager.GetMaxAge();
    TimePoint cutoff;
    if (maxAge.ToNanoseconds() == 0 || !Cutoff(now, maxAge, cutoff))
        return 0;
    const size_t files = manager.PurgeOlderThan(cutoff);
    if (files != 0) {
        MR_LOG(logger_, 20,
               "T" << id << ": purged " << files << " files of content older than " << cutoff);
    }
    return files;
}
