#pragma once

#include <functional>

#include "Platform/Logging/Logger.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

// Retention by age for the track storage: a track may keep its content no
// longer than a maximum age; blocks whose whole content is older than "now"
// minus that age, and that no protection holds, are given back as empty
// files of the track. "Now" is the wall clock, as the time points of live
// recordings are; tests give their own clock.
//
// Holds no track state (each track's policy lives in its index and
// database). Not synchronised: the track storage calls it under its access
// mutex, with the track's monitoring mutex held so the track cannot go.
class TrackRetention {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Clock = std::function<TimePoint()>;

    TrackRetention();

    // An empty clock restores the wall clock.
    void SetClock(Clock clock);
    TimePoint Now() const { return clock_(); }

    // Records the track's maximum age durably (0 ns: none), then purges what
    // it no longer keeps. Throws std::runtime_error for a negative age.
    void SetMaxAge(long id, LoopRecordingFileManager& manager, const TimePoint& maxAge);
    // Purges the track against `now` when it has a maximum age; returns the
    // files given back.
    size_t Purge(long id, LoopRecordingFileManager& manager, const TimePoint& now);

  private:
    Clock clock_;
    tav::mr::logging::Logger logger_;
};
