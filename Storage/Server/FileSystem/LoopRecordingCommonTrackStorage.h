#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/Mutex.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/File/FilesPool.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Indexes/SQLite/ProtectionDB.h"
#include "Storage/Server/FileSystem/TrackFileMoves.h"
#include "Storage/Server/FileSystem/TrackPropertiesCache.h"
#include "Storage/Server/FileSystem/TrackProtections.h"
#include "Storage/Server/FileSystem/TrackRetention.h"
#include "Storage/Server/Monitoring.h"

// The core of the track storage service: creates, resizes, clears and
// deletes tracks by moving preallocated files between the pool and the
// numbered track directories, keeping each track's index in step; answers
// the queries; keeps protections ("protections.db") and properties
// ("properties.db").
//
// Refers to the directory handler and the index registry (owned by the
// service factory, which outlives it); shares the pools.
//
// The moves of files (TrackFileMoves) and the protections (TrackProtections)
// are helpers without locks of their own, called under the mutexes below.
//
// Thread safety: every operation is safe from any thread. Two independent
// mutexes: poolMutex_ serialises what moves files (create, resize, delete,
// pools); accessMutex_ serialises clearing, queries, protections and
// properties, so a long move never blocks readers of track information.
// Deletion also holds the track's monitoring mutex, after poolMutex_; the
// access mutex is never taken while a monitoring mutex is held.
class LoopRecordingCommonTrackStorage {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    LoopRecordingCommonTrackStorage(DirectoryHandler& directories,
                                    LoopRecordingFileManagers& managers);
    virtual ~LoopRecordingCommonTrackStorage();

    // --- Lifecycle ---
    // 1 on success; -1 for a refused request (no pool, zero size). Throws
    // std::runtime_error when the track exists or the pool cannot serve.
    long CreateTrack(const Protocol::TrackParameters& in, Protocol::TrackParameters& out);
    // The request's size is a signed change in bytes.
    void GrowTrack(const Protocol::TrackParameters& in, Protocol::TrackParameters& out);
    void DeleteTrack(const long& id, Protocol::TrackParameters& out);
    void ClearTrack(const long& id);

    // --- Queries ---
    void ListTracks(Protocol::TrackList& out);
    void GetTrackInfos(const Protocol::Ids& ids, Protocol::TrackInfos& out);
    void GetRemainingSpace(long& out);
    // Bytes of the track's files; 0 for an unknown track (no manager is created).
    long GetMaxTrackSize(long id);
    void GetBeginningOfTrack(const long& id, Protocol::TimePoint& out);
    void GetEndOfTrack(const long& id, Protocol::TimePoint& out);
    TimePoint GetAccumulatedDuration(const long& id, const TimePoint& from, const TimePoint& to);
    unsigned long GetNumberOfChunks(const long& id, const TimePoint& from, const TimePoint& to);

    // --- Protections and properties ---
    void OpenProtectionDatabase(const std::string& dbDirectory);
    void OpenPropertiesDatabase(const std::string& dbDirectory);
    void Protect(const long& track, const Protocol::TimePoint& from,
                 const Protocol::TimePoint& duration, long& protectionId);
    // The worker: `isNew` false reloads a stored protection under its id;
    // one whose range holds no block any more is kept all the same (logged
    // at level 40), so that a start never fails on it.
    void Protect(const long& track, const TimePoint& from, const TimePoint& duration,
                 long& protectionId, bool isNew, const ProtectionDB::Terms& terms = {})
        REQUIRES(accessMutex_);
    // The host's form with a label and an expiry; an expiry not after the
    // clock's now is refused before anything is protected.
    void ProtectWithTerms(const long& track, const Protocol::TimePoint& from,
                          const Protocol::TimePoint& duration,
                          const Protocol::ProtectionTerms& terms, long& protectionId);
    void Unprotect(const long& protectionId);
    // Lifts, as Unprotect does, every protection whose expiry is not after
    // the clock's now; returns how many. Also run at start-up.
    size_t LiftExpiredProtections();
    // The clock of expiries (the wall clock by default). Set before the
    // protection database is opened.
    void SetClock(std::function<TimePoint()> clock);
    void ListProtections(Protocol::ProtectionInfos& out);
    void SetTrackProperties(const long& track, const Protocol::PropertyList& properties);
    void RemoveTrackProperties(const long& track, const Protocol::PropertyList& properties);
    void GetTrackProperties(const long& track, Protocol::PropertyList& out);
    void RemoveAllProperties(long track);

    // --- Retention by age ---
    // Keeps the track's content no longer than `maxAge` (0 ns: no limit),
    // recorded durably with the track; what is older goes at once. Throws
    // std::runtime_error for an unknown track or a negative age.
    void SetTrackMaxAge(const long& id, const TimePoint& maxAge);
    // Gives back what every track's maximum age no longer keeps; returns
    // the files given back. Run at start-up and periodically.
    size_t PurgeExpiredContent();
    // The clock of "now" for retention (the wall clock unless set).
    void SetRetentionClock(TrackRetention::Clock clock);

    // --- Pools and monitoring ---
    void AddPool(std::shared_ptr<FilesPool> pool);
    void RemovePool(std::shared_ptr<FilesPool> pool);
    void SetMonitoring(Monitoring* monitoring);
    std::vector<std::pair<long, long>> GetActiveWorkers() const;
    Monitoring::WorkerInfo GetWorkerInfo(long workerId) const;

  private:
    std::shared_ptr<FilesPool> FirstPool() const;  // null when there is none
    Monitoring& RequireMonitoring(const char* message) const;

    tav::mr::logging::Logger logger_;
    DirectoryHandler& directories_;
    LoopRecordingFileManagers& managers_;
    // Held briefly, after poolMutex_ when both are.
    mutable Moreld::Tools::Mutex poolsMutex_;
    std::set<std::shared_ptr<FilesPool>> pools_ GUARDED_BY(poolsMutex_);
    TrackFileMoves moves_ GUARDED_BY(poolMutex_);
    TrackProtections protections_ GUARDED_BY(accessMutex_);
    TrackPropertiesCache properties_ GUARDED_BY(accessMutex_);
    TrackRetention retention_ GUARDED_BY(accessMutex_);
    Monitoring* monitoring_ = nullptr;
    // Independent of each other; both taken before any track's monitoring
    // mutex and the locks of the index, the caches and the pool.
    mutable Moreld::Tools::Mutex poolMutex_ ACQUIRED_BEFORE(poolsMutex_);
    mutable Moreld::Tools::Mutex accessMutex_;
};
