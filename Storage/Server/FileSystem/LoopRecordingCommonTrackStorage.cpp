#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"

#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/StrCat.h"

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;
using Moreld::Tools::StrCat;

namespace {

// The answer for a missing time point (unknown or empty track).
const TimePoint kNoTimePoint = TimePoint::FromNanoseconds(-1);

}  // namespace

LoopRecordingCommonTrackStorage::LoopRecordingCommonTrackStorage(
    DirectoryHandler& directories, LoopRecordingFileManagers& managers)
    : logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingCommonTrackStorage")),
      directories_(directories),
      managers_(managers),
      moves_(directories, managers, logger_),
      protections_(directories, managers, logger_) {}

LoopRecordingCommonTrackStorage::~LoopRecordingCommonTrackStorage() = default;

std::shared_ptr<FilesPool> LoopRecordingCommonTrackStorage::FirstPool() const {
    Moreld::Tools::MutexLock lock(poolsMutex_);
    return pools_.empty() ? nullptr : *pools_.begin();
}

void LoopRecordingCommonTrackStorage::AddPool(std::shared_ptr<FilesPool> pool) {
    Moreld::Tools::MutexLock moves(poolMutex_);
    Moreld::Tools::MutexLock lock(poolsMutex_);
    pools_.insert(std::move(pool));
}

void LoopRecordingCommonTrackStorage::RemovePool(std::shared_ptr<FilesPool> pool) {
    Moreld::Tools::MutexLock moves(poolMutex_);
    Moreld::Tools::MutexLock lock(poolsMutex_);
    pools_.erase(pool);
}

void LoopRecordingCommonTrackStorage::SetMonitoring(Monitoring* monitoring) {
    monitoring_ = monitoring;
}

Monitoring& LoopRecordingCommonTrackStorage::RequireMonitoring(const char* message) const {
    if (monitoring_ == nullptr)
        throw std::runtime_error(message);
    return *monitoring_;
}

// ---------------------------------------------------------------------------
// Lifecycle

long LoopRecordingCommonTrackStorage::CreateTrack(const Protocol::TrackParameters& in,
                                                  Protocol::TrackParameters& out) {
    Moreld::Tools::MutexLock lock(poolMutex_);
    std::shared_ptr<FilesPool> pool = FirstPool();
    auto refuse = [&out] {
        out.set_id(0);
        out.set_size(0);
        return -1L;
    };
    if (!pool) {
        MR_LOG(logger_, 20, "No pool available to create track " << in.id());
        return refuse();
    }
    if (in.size() == 0) {
        MR_LOG(logger_, 20, "We don't accept negative or 0 size for track " << in.id());
        return refuse();
    }
    const long id = moves_.ChooseTrackId(in.id());
    moves_.Create(id, static_cast<unsigned long>(in.size()), *pool, out);
    return 1;
}

void LoopRecordingCommonTrackStorage::GrowTrack(const Protocol::TrackParameters& in,
                                                Protocol::TrackParameters& out) {
    Moreld::Tools::MutexLock lock(poolMutex_);
    const long id = in.id();
    out.set_id(0);
    out.set_size(0);
    if (!FirstPool()) {
        std::string msg = StrCat("Cannot ResizeTrack ", id, ": No pool available");
        MR_LOG(logger_, 30, msg);
        throw MoreldStorageApi::StoreBusyError(msg);
    }
    if (!directories_.Exist(id)) {
        throw MoreldStorageApi::NotFoundError(
            StrCat("Cannot ResizeTrack ", id, ": Track is not created"));
    }
    out.set_id(id);
    out.set_status(1);
    LoopRecordingFileManager& manager = *managers_.GetManager(id);
    const long change = in.size();
    if (change == 0) {
        MR_LOG(logger_, 30, "T" << id << ": no change to resize");
        out.set_size(static_cast<long>(manager.GetMaxTrackSize()));
    } else if (change > 0) {
        moves_.Extend(id, static_cast<unsigned long>(change), *FirstPool(), manager, out);
    } else {
        moves_.Shrink(id, 0UL - static_cast<unsigned long>(change), *FirstPool(), manager, out);
    }
}

void LoopRecordingCommonTrackStorage::DeleteTrack(const long& id, Protocol::TrackParameters& out) {
    Moreld::Tools::MutexLock lock(poolMutex_);
    std::shared_ptr<FilesPool> pool;
    {
        // No reader or writer may open on the track while it goes away.
        Monitoring& monitoring = RequireMonitoring(
            "Monitoring not set for LoopRecordingCommonTrackStorage in DeleteTrack");
        Moreld::Tools::MutexLock track(monitoring.GetMutex(id));
        const auto workers = monitoring.GetNumberWorkers(id);
        if (workers != 0) {
            throw MoreldStorageApi::StoreBusyError(
                StrCat("T", id, ": Cannot DeleteTrack, there are still ", workers,
                       " active workers on it. Close your readers and writers "
                       "then try again"));
        }
        MR_LOG(logger_, 30, "Deleting track " << id << "...");
        pool = FirstPool();
        if (!pool) {
            throw MoreldStorageApi::StoreBusyError(
                StrCat("No pool available to Restore the files for track ", id,
                       ": we don't delete the track"));
        }
        if (!managers_.Exists(id)) {
            MR_LOG(logger_, 30, "T" << id << ": doesn't exist");
            return;
        }
        if (!moves_.GiveBackUnprotectedFiles(id, *pool, out))
            return;
    }
    // Properties are kept under the access mutex, which is never taken while
    // a track's monitoring mutex is held.
    RemoveAllProperties(id);
    pool->CloseMoveFilesTransaction();
    const unsigned long space = pool->GetRemainingSpace();
    MR_LOG(
        logger_, 30,
        "T" << id << ": Deleted. Available size is " << space / 1000000 << "MB (" << space << "B)");
}

void LoopRecordingCommonTrackStorage::ClearTrack(const long& id) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    if (!managers_.Exists(id))
        return;
    LoopRecordingFileManager& manager = *managers_.GetManager(id);
    manager.Clear();
    MR_LOG(logger_, 30,
           "T" << id << ": cleared. End of track is now " << manager.GetEndOfTrack()
               << ". Track size is now " << manager.GetTrackSize() << "B");
}

// ---------------------------------------------------------------------------
// Queries

void LoopRecordingCommonTrackStorage::ListTracks(Protocol::TrackList& out) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    out.clear_ids();
    for (long id : managers_.GetTrackIds())
        out.add_ids(id);
}

void LoopRecordingCommonTrackStorage::GetTrackInfos(const Protocol::Ids& ids,
                                                    Protocol::TrackInfos& out) {
    Monitoring& monitoring = RequireMonitoring("Monitoring not set, cannot call GetTrackInfos");
    Moreld::Tools::MutexLock lock(accessMutex_);
    for (long id : ids.ids()) {
        Moreld::Tools::MutexLock track(monitoring.GetMutex(id));
        if (!managers_.Exists(id))
            continue;
        LoopRecordingFileManager& manager = *managers_.GetManager(id);
        Protocol::TrackInfo* info = out.add_infos();
        info->set_id(id);
        *info->mutable_beginning() = Converter::To(manager.GetBeginningOfTrack());
        *info->mutable_end() = Converter::To(manager.GetEndOfTrack());
        info->set_current_size(manager.GetTrackSize());
        info->set_track_size(manager.GetMaxTrackSize());
        *info->mutable_max_age() = Converter::To(manager.GetMaxAge());
        TimePoint oldest = kNoTimePoint;
        manager.GetFirstChunkLocation(oldest);
        *info->mutable_oldest() = Converter::To(oldest);
    }
}

void LoopRecordingCommonTrackStorage::GetRemainingSpace(long& out) {
    std::shared_ptr<FilesPool> pool = FirstPool();
    out = pool ? static_cast<long>(pool->GetRemainingSpace()) : 0;
}

long LoopRecordingCommonTrackStorage::GetMaxTrackSize(long id) {
    if (!managers_.Exists(id))
        return 0;
    return static_cast<long>(managers_.GetManager(id)->GetMaxTrackSize());
}

void LoopRecordingCommonTrackStorage::GetBeginningOfTrack(const long& id,
                                                          Protocol::TimePoint& out) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    TimePoint found = kNoTimePoint;
    if (managers_.Exists(id)) {
        TimePoint first;
        if (managers_.GetManager(id)->GetFirstChunkLocation(first))
            found = first;
    }
    out = Converter::To(found);
}

void LoopRecordingCommonTrackStorage::GetEndOfTrack(const long& id, Protocol::TimePoint& out) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    out = Converter::To(managers_.Exists(id) ? managers_.GetManager(id)->GetEndOfTrack()
                                             : kNoTimePoint);
}

TimePoint LoopRecordingCommonTrackStorage::GetAccumulatedDuration(const long& id,
                                                                  const TimePoint& from,
                                                                  const TimePoint& to) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    if (!directories_.Exist(id))
        return TimePoint();
    return managers_.GetManager(id)->GetAccumulatedDuration(from, to);
}

unsigned long LoopRecordingCommonTrackStorage::GetNumberOfChunks(const long& id,
                                                                 const TimePoint& from,
                                                                 const TimePoint& to) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    if (!directories_.Exist(id))
        return 0;
    return managers_.GetManager(id)->GetNumberOfChunks(from, to);
}

std::vector<std::pair<long, long>> LoopRecordingCommonTrackStorage::GetActiveWorkers() const {
    return RequireMonitoring("Monitoring not set, cannot call GetActiveWorkers").GetActiveWorkers();
}

Monitoring::WorkerInfo LoopRecordingCommonTrackStorage::GetWorkerInfo(long workerId) const {
    return RequireMonitoring("Monitoring not set, cannot call GetWorkerInfo")
        .GetWorkerInfo(workerId);
}

// ---------------------------------------------------------------------------
// Protections

void LoopRecordingCommonTrackStorage::OpenProtectionDatabase(const std::string& dbDirectory) {
    // At start-up nobody else calls yet; the lock is taken for the rule.
    Moreld::Tools::MutexLock lock(accessMutex_);
    protections_.Reload(dbDirectory);
    protections_.LiftExpired();
}

void LoopRecordingCommonTrackStorage::SetClock(std::function<TimePoint()> clock) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    protections_.SetClock(std::move(clock));
}

void LoopRecordingCommonTrackStorage::ProtectWithTerms(const long& track,
                                                       const Protocol::TimePoint& from,
                                                       const Protocol::TimePoint& duration,
                                                       const Protocol::ProtectionTerms& terms,
                                                       long& protectionId) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    protections_.ProtectWithTerms(track, Converter::From(from), Converter::From(duration), terms,
                                  protectionId);
}

void LoopRecordingCommonTrackStorage::Protect(const long& track, const Protocol::TimePoint& from,
                                              const Protocol::TimePoint& duration,
                                              long& protectionId) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    protections_.Protect(track, Converter::From(from), Converter::From(duration), protectionId,
                         true, {});
}

void LoopRecordingCommonTrackStorage::Protect(const long& track, const TimePoint& from,
                                              const TimePoint& duration, long& protectionId,
                                              bool isNew, const ProtectionDB::Terms& terms) {
    protections_.Protect(track, from, duration, protectionId, isNew, terms);
}

void LoopRecordingCommonTrackStorage::Unprotect(const long& protectionId) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    protections_.Unprotect(protectionId);
}

size_t LoopRecordingCommonTrackStorage::LiftExpiredProtections() {
    Moreld::Tools::MutexLock lock(accessMutex_);
    return protections_.LiftExpired();
}

void LoopRecordingCommonTrackStorage::ListProtections(Protocol::ProtectionInfos& out) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    protections_.List(out);
}

// ---------------------------------------------------------------------------
// Properties

void LoopRecordingCommonTrackStorage::OpenPropertiesDatabase(const std::string& dbDirectory) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    properties_.Open(dbDirectory);
}

void LoopRecordingCommonTrackStorage::SetTrackProperties(const long& track,
                                                         const Protocol::PropertyList& properties) {
    if (!managers_.Exists(track)) {
        throw MoreldStorageApi::NotFoundError(
            StrCat("T", track, ": does not exist, you cannot SetTrackProperties"));
    }
    Moreld::Tools::MutexLock lock(accessMutex_);
    properties_.Set(track, properties);
}

void LoopRecordingCommonTrackStorage::RemoveTrackProperties(
    const long& track, const Protocol::PropertyList& properties) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    properties_.Remove(track, properties);
}

void LoopRecordingCommonTrackStorage::GetTrackProperties(const long& track,
                                                         Protocol::PropertyList& out) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    properties_.Get(track, out);
}

void LoopRecordingCommonTrackStorage::RemoveAllProperties(long track) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    properties_.RemoveAll(track);
}

// ---------------------------------------------------------------------------
// Retention by age

void LoopRecordingCommonTrackStorage::SetRetentionClock(TrackRetention::Clock clock) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    retention_.SetClock(std::move(clock));
}

void LoopRecordingCommonTrackStorage::SetTrackMaxAge(const long& id, const TimePoint& maxAge) {
    Monitoring& monitoring = RequireMonitoring("Monitoring not set, cannot call SetTrackMaxAge");
    Moreld::Tools::MutexLock lock(accessMutex_);
    // Deletion holds the track's mutex: the track cannot go meanwhile.
    Moreld::Tools::MutexLock track(monitoring.GetMutex(id));
    if (!managers_.Exists(id)) {
        std::string msg = StrCat("Track ", id, " does not exist to set its max age");
        MR_LOG(logger_, 30, msg);
        throw MoreldStorageApi::NotFoundError(msg);
    }
    retention_.SetMaxAge(id, *managers_.GetManager(id), maxAge);
}

size_t LoopRecordingCommonTrackStorage::PurgeExpiredContent() {
    Monitoring& monitoring =
        RequireMonitoring("Monitoring not set, cannot call PurgeExpiredContent");
    Moreld::Tools::MutexLock lock(accessMutex_);
    const TimePoint now = retention_.Now();
    size_t files = 0;
    for (long id : managers_.GetTrackIds()) {
        Moreld::Tools::MutexLock track(monitoring.GetMutex(id));
        if (managers_.Exists(id))
            files += retention_.Purge(id, *managers_.GetManager(id), now);
    }
    return files;
}
