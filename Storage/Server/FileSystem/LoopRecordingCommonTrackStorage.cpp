#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"

#include <limits>
#include <sstream>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Tools/MutexLock.h"
#include "Storage/Server/FileSystem/ProtectionTermsCodec.h"

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

namespace {

// The answer for a missing time point (unknown or empty track).
const TimePoint kNoTimePoint = TimePoint::FromNanoseconds(-1);

template <typename... Parts>
std::string Concat(const Parts&... parts) {
    std::ostringstream os;
    (os << ... << parts);
    return os.str();
}

}  // namespace

LoopRecordingCommonTrackStorage::LoopRecordingCommonTrackStorage(
    DirectoryHandler& directories, LoopRecordingFileManagers& managers)
    : directories_(directories),
      managers_(managers),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingCommonTrackStorage")) {}

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

long LoopRecordingCommonTrackStorage::ChooseTrackId(long requested) const {
    if (requested != 0)
        return requested;
    std::vector<long> ids = managers_.GetTrackIds();
    if (ids.empty())
        return 1;
    if (ids.back() == std::numeric_limits<long>::max()) {
        std::string msg = Concat("Cannot choose an id for a new track: no track id is left after ",
                                 ids.back(), ". Give the new track an id");
        MR_LOG(logger_, 40, msg);
        throw std::runtime_error(msg);
    }
    return ids.back() + 1;
}

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
    const long id = ChooseTrackId(in.id());
    if (directories_.Exist(id)) {
        std::string msg =
            Concat("Track ", id, " already exist. You cannot create it a second time");
        MR_LOG(logger_, 50, msg);
        throw std::runtime_error(msg);
    }
    directories_.Create(id);
    std::vector<ChunkFile> files;
    unsigned long moved = 0;
    try {
        moved = pool->MoveFiles(id, static_cast<unsigned long>(in.size()), files, 0);
    } catch (const std::runtime_error& e) {
        MR_LOG(logger_, 40, "Could not create track " << id << ": " << e.what());
        pool->RestoreFiles(files, 0);
        directories_.Delete(id);
        throw;
    }
    if (pool->HasStoppedMovingFiles()) {
        // The next start finishes the interrupted move.
        MR_LOG(logger_, 40,
               "Stopped creating track. You should never see this in a normal behavior");
        return 1;
    }
    managers_.GetManager(id)->InsertFiles(files);
    pool->CloseMoveFilesTransaction();
    const unsigned long remaining = pool->GetRemainingSpace();
    MR_LOG(logger_, 30,
           "Created track " << id << " of size " << moved << "B: " << files.size()
                            << " files moved. Remaining space is " << remaining / 1000000 << "MB ("
                            << remaining << "B)");
    out.set_id(id);
    out.set_size(static_cast<long>(moved));
    out.set_status(1);
    return 1;
}

void LoopRecordingCommonTrackStorage::GrowTrack(const Protocol::TrackParameters& in,
                                                Protocol::TrackParameters& out) {
    Moreld::Tools::MutexLock lock(poolMutex_);
    const long id = in.id();
    out.set_id(0);
    out.set_size(0);
    if (!FirstPool()) {
        std::string msg = Concat("Cannot ResizeTrack ", id, ": No pool available");
        MR_LOG(logger_, 30, msg);
        throw std::runtime_error(msg);
    }
    if (!directories_.Exist(id)) {
        throw std::runtime_error(Concat("Cannot ResizeTrack ", id, ": Track is not created"));
    }
    out.set_id(id);
    out.set_status(1);
    LoopRecordingFileManager& manager = *managers_.GetManager(id);
    const long change = in.size();
    if (change == 0) {
        MR_LOG(logger_, 30, "T" << id << ": no change to resize");
        out.set_size(static_cast<long>(manager.GetMaxTrackSize()));
    } else if (change > 0) {
        ExtendTrack(id, static_cast<unsigned long>(change), manager, out);
    } else {
        ShrinkTrack(id, 0UL - static_cast<unsigned long>(change), manager, out);
    }
}

void LoopRecordingCommonTrackStorage::ExtendTrack(long id, unsigned long bytes,
                                                  LoopRecordingFileManager& manager,
                                                  Protocol::TrackParameters& out) {
    std::shared_ptr<FilesPool> pool = FirstPool();
    std::vector<ChunkFile> files;
    pool->MoveFiles(id, bytes, files, 0);
    if (pool->HasStoppedMovingFiles()) {
        MR_LOG(logger_, 40, "Stop moving files. You should never see this in a normal behavior");
        return;
    }
    manager.InsertFiles(files);
    pool->CloseMoveFilesTransaction();
    out.set_size(static_cast<long>(manager.GetMaxTrackSize()));
    MR_LOG(logger_, 30,
           "T" << id << ": size grew up to " << manager.GetMaxTrackSize() << ": " << files.size()
               << " files added");
}

void LoopRecordingCommonTrackStorage::ShrinkTrack(long id, unsigned long bytes,
                                                  LoopRecordingFileManager& manager,
                                                  Protocol::TrackParameters& out) {
    std::shared_ptr<FilesPool> pool = FirstPool();
    std::vector<ChunkFile> files = manager.RemoveFiles(bytes);
    pool->RestoreFiles(files, 0);
    if (pool->HasStoppedMovingFiles()) {
        MR_LOG(logger_, 40, "Stop restoring files. You should never see this in a normal behavior");
        return;
    }
    manager.RemoveFiles(files);
    pool->CloseMoveFilesTransaction();
    out.set_size(static_cast<long>(manager.GetMaxTrackSize()));
    MR_LOG(logger_, 30, "T" << id << ": size lowered down to " << manager.GetMaxTrackSize());
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
            throw std::runtime_error(Concat("T", id, ": Cannot DeleteTrack, there are still ",
                                            workers,
                                            " active workers on it. Close your readers and writers "
                                            "then try again"));
        }
        MR_LOG(logger_, 30, "Deleting track " << id << "...");
        pool = FirstPool();
        if (!pool) {
            throw std::runtime_error(Concat("No pool available to Restore the files for track ", id,
                                            ": we don't delete the track"));
        }
        if (!managers_.Exists(id)) {
            MR_LOG(logger_, 30, "T" << id << ": doesn't exist");
            return;
        }
        if (!GiveBackUnprotectedFiles(id, *pool, out))
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

bool LoopRecordingCommonTrackStorage::GiveBackUnprotectedFiles(long id, FilesPool& pool,
                                                               Protocol::TrackParameters& out) {
    LoopRecordingFileManager& manager = *managers_.GetManager(id);
    std::vector<ChunkFile> files = manager.RemoveFiles(std::numeric_limits<unsigned long>::max());
    pool.RestoreFiles(files, 0);
    if (pool.HasStoppedMovingFiles()) {
        MR_LOG(logger_, 40,
               "Stopped deleting track. You should never see this in a normal behavior");
        return false;
    }
    manager.RemoveFiles(files);
    const unsigned long remaining = manager.GetMaxTrackSize();
    out.set_size(static_cast<long>(remaining));
    out.set_status(1);
    if (remaining != 0) {
        // Protected files keep the track alive.
        MR_LOG(logger_, 30,
               "Delete track " << id << ": size lowered down to " << remaining
                               << "B because there were remaining protections. " << files.size()
                               << " files were restored to pool.");
        pool.CloseMoveFilesTransaction();
        return false;
    }
    directories_.Delete(id);
    manager.Clear();
    manager.DestroyDatabase();
    managers_.Destroy(id);
    return true;
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
    protectionDb_.Open(dbDirectory);
    for (const ProtectionDB::ProtectionEntry& entry : protectionDb_.GetProtections()) {
        if (entry.protectionId > lastProtectionId_)
            lastProtectionId_ = entry.protectionId;
        long id = entry.protectionId;
        Protect(entry.trackId, entry.from, entry.to - entry.from, id, false);
    }
    LiftExpiredLocked();
}

void LoopRecordingCommonTrackStorage::ProtectWithTerms(const long& track,
                                                       const Protocol::TimePoint& from,
                                                       const Protocol::TimePoint& duration,
                                                       const Protocol::ProtectionTerms& terms,
                                                       long& protectionId) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    const ProtectionDB::Terms checked = ProtectionTermsCodec::FromRequest(track, terms, clock_());
    Protect(track, Converter::From(from), Converter::From(duration), protectionId, true, checked);
}

void LoopRecordingCommonTrackStorage::Protect(const long& track, const Protocol::TimePoint& from,
                                              const Protocol::TimePoint& duration,
                                              long& protectionId) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    Protect(track, Converter::From(from), Converter::From(duration), protectionId, true);
}

void LoopRecordingCommonTrackStorage::Protect(const long& track, const TimePoint& from,
                                              const TimePoint& duration, long& protectionId,
                                              bool isNew, const ProtectionDB::Terms& terms) {
    if (!directories_.Exist(track)) {
        std::string msg = Concat("Track ", track, " does not exist to protect at ", from);
        MR_LOG(logger_, 30, msg);
        throw std::runtime_error(msg);
    }
    LoopRecordingFileManager& manager = *managers_.GetManager(track);
    TimePoint to;
    if (!TimePoint::CheckedAdd(from, duration, to)) {
        std::string msg =
            Concat("T", track, ": Protection from ", from, " (", from.ToNanoseconds(),
                   "ns) lasting ", duration.ToDurationString(), " ends after the last time point");
        MR_LOG(logger_, 40, msg);
        throw std::runtime_error(msg);
    }
    if (isNew) {
        const long id = lastProtectionId_ + 1;
        manager.Protect(id, from, to);  // throws before anything is issued
        lastProtectionId_ = id;
        protectionId = id;
        protectionDb_.Protect(track, id, from, to, terms);
    } else if (manager.RestoreProtection(protectionId, from, to) == 0) {
        // Its blocks were lost (a crash, a repair): the protection stays, so
        // that it can still be listed and lifted, and the start goes on.
        MR_LOG(logger_, 40,
               "T" << track << ": Protection " << protectionId << " from " << from << " to " << to
                   << " holds no block; it is kept");
        return;
    }
    MR_LOG(logger_, 30,
           "T" << track << ": Protection " << protectionId << " from " << from << ", to " << to);
}

void LoopRecordingCommonTrackStorage::Unprotect(const long& protectionId) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    UnprotectLocked(protectionId);
}

size_t LoopRecordingCommonTrackStorage::LiftExpiredProtections() {
    Moreld::Tools::MutexLock lock(accessMutex_);
    return LiftExpiredLocked();
}

size_t LoopRecordingCommonTrackStorage::LiftExpiredLocked() {
    const TimePoint now = clock_();
    size_t lifted = 0;
    for (const ProtectionDB::ProtectionEntry& entry : protectionDb_.GetProtections()) {
        if (!entry.terms.expires || *entry.terms.expires > now)
            continue;
        MR_LOG(logger_, 30,
               "T" << entry.trackId << ": Protection " << entry.protectionId << " expired at "
                   << *entry.terms.expires << ": lifted");
        UnprotectLocked(entry.protectionId);
        ++lifted;
    }
    return lifted;
}

void LoopRecordingCommonTrackStorage::UnprotectLocked(long protectionId) {
    const long track = protectionDb_.GetTrackIdFromProtectionId(protectionId);
    if (track == 0) {
        MR_LOG(logger_, 30,
               "Could not find track id associated with protection id " << protectionId
                                                                        << ": cannot Unprotect");
        return;
    }
    const unsigned long freed = managers_.GetManager(track)->Unprotect(protectionId);
    protectionDb_.UnProtect(protectionId);
    MR_LOG(logger_, 30,
           "Unprotect protection id " << protectionId << " on track " << track << ": " << freed
                                      << " files freed");
}

void LoopRecordingCommonTrackStorage::ListProtections(Protocol::ProtectionInfos& out) {
    Moreld::Tools::MutexLock lock(accessMutex_);
    out.clear_infos();
    std::vector<ProtectionDB::ProtectionEntry> entries = protectionDb_.GetProtections();
    MR_LOG(logger_, 30, "ListProtections: " << entries.size() << " protections found");
    for (const ProtectionDB::ProtectionEntry& entry : entries) {
        Protocol::ProtectionInfo* info = out.add_infos();
        info->set_protection_id(entry.protectionId);
        info->set_track_id(entry.trackId);
        *info->mutable_start() = Converter::To(entry.from);
        *info->mutable_end() = Converter::To(entry.to);
        ProtectionTermsCodec::ToInfo(entry.terms, *info);
    }
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
        throw std::runtime_error(
            Concat("T", track, ": does not exist, you cannot SetTrackProperties"));
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
        std::string msg = Concat("Track ", id, " does not exist to set its max age");
        MR_LOG(logger_, 30, msg);
        throw std::runtime_error(msg);
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
