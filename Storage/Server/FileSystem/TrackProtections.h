#pragma once

#include <functional>
#include <string>
#include <utility>

#include "Platform/Logging/Logger.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Indexes/SQLite/ProtectionDB.h"

// The protections of every track: issues their ids, holds them in the
// tracks' indexes, keeps them in "protections.db" with their terms (label,
// expiry), reloads them at start-up and lifts those whose expiry has come.
//
// Owns the protection database; refers to the directory handler and the
// index registry of the track storage, whose logger it writes to. No
// thread-safety of its own: the track storage calls it under its access
// mutex (the reload at start-up runs before the storage is shared).
class TrackProtections {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    TrackProtections(DirectoryHandler& directories, LoopRecordingFileManagers& managers,
                     const tav::mr::logging::Logger& logger)
        : directories_(directories), managers_(managers), logger_(logger) {}

    // The clock of expiries (the wall clock by default).
    void SetClock(std::function<TimePoint()> clock) { clock_ = std::move(clock); }
    // Opens the database and holds every stored protection again.
    void Reload(const std::string& dbDirectory);
    // `isNew` false reloads a stored protection under its id; one whose
    // range holds no block any more is kept all the same (logged at level
    // 40). Throws std::runtime_error for an unknown track, a range past the
    // last time point, or what the index refuses; no id is issued then.
    void Protect(long track, const TimePoint& from, const TimePoint& duration, long& protectionId,
                 bool isNew, const ProtectionDB::Terms& terms);
    // Checks the terms against the clock's now, then protects.
    void ProtectWithTerms(long track, const TimePoint& from, const TimePoint& duration,
                          const Protocol::ProtectionTerms& terms, long& protectionId);
    // An unknown id is logged and ignored.
    void Unprotect(long protectionId);
    // Lifts every protection whose expiry is not after now; how many.
    size_t LiftExpired();
    void List(Protocol::ProtectionInfos& out);

  private:
    // Issues the next id for a protection the index accepted.
    void ProtectNew(long track, LoopRecordingFileManager& manager, const TimePoint& from,
                    const TimePoint& to, long& protectionId, const ProtectionDB::Terms& terms);

    DirectoryHandler& directories_;
    LoopRecordingFileManagers& managers_;
    const tav::mr::logging::Logger& logger_;
    ProtectionDB protectionDb_;
    long lastProtectionId_ = 0;
    std::function<TimePoint()> clock_ = [] { return TimePoint::Now(); };
};
