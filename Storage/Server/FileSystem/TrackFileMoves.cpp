#include "Storage/Server/FileSystem/TrackFileMoves.h"

#include <limits>
#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/StrCat.h"

using Moreld::Tools::StrCat;

long TrackFileMoves::ChooseTrackId(long requested) const {
    if (requested != 0)
        return requested;
    std::vector<long> ids = managers_.GetTrackIds();
    if (ids.empty())
        return 1;
    if (ids.back() == std::numeric_limits<long>::max()) {
        std::string msg = StrCat("Cannot choose an id for a new track: no track id is left after ",
                                 ids.back(), ". Give the new track an id");
        MR_LOG(logger_, 40, msg);
        throw MoreldStorageApi::StoreBusyError(msg);
    }
    return ids.back() + 1;
}

void TrackFileMoves::Create(long id, unsigned long bytes, FilesPool& pool,
                            Protocol::TrackParameters& out) {
    if (directories_.Exist(id)) {
        std::string msg =
            StrCat("Track ", id, " already exist. You cannot create it a second time");
        MR_LOG(logger_, 50, msg);
        throw MoreldStorageApi::AlreadyExistsError(msg);
    }
    directories_.Create(id);
    std::vector<ChunkFile> files;
    unsigned long moved = 0;
    try {
        moved = pool.MoveFiles(id, bytes, files, 0);
    } catch (const std::runtime_error& e) {
        MR_LOG(logger_, 40, "Could not create track " << id << ": " << e.what());
        pool.RestoreFiles(files, 0);
        directories_.Delete(id);
        throw;
    }
    if (pool.HasStoppedMovingFiles()) {
        // The next start finishes the interrupted move.
        MR_LOG(logger_, 40,
               "Stopped creating track. You should never see this in a normal behavior");
        return;
    }
    managers_.GetManager(id)->InsertFiles(files);
    pool.CloseMoveFilesTransaction();
    const unsigned long remaining = pool.GetRemainingSpace();
    MR_LOG(logger_, 30,
           "Created track " << id << " of size " << moved << "B: " << files.size()
                            << " files moved. Remaining space is " << remaining / 1000000 << "MB ("
                            << remaining << "B)");
    out.set_id(id);
    out.set_size(static_cast<long>(moved));
    out.set_status(1);
}

void TrackFileMoves::Extend(long id, unsigned long bytes, FilesPool& pool,
                            LoopRecordingFileManager& manager, Protocol::TrackParameters& out) {
    std::vector<ChunkFile> files;
    pool.MoveFiles(id, bytes, files, 0);
    if (pool.HasStoppedMovingFiles()) {
        MR_LOG(logger_, 40, "Stop moving files. You should never see this in a normal behavior");
        return;
    }
    manager.InsertFiles(files);
    pool.CloseMoveFilesTransaction();
    out.set_size(static_cast<long>(manager.GetMaxTrackSize()));
    MR_LOG(logger_, 30,
           "T" << id << ": size grew up to " << manager.GetMaxTrackSize() << ": " << files.size()
               << " files added");
}

void TrackFileMoves::Shrink(long id, unsigned long bytes, FilesPool& pool,
                            LoopRecordingFileManager& manager, Protocol::TrackParameters& out) {
    std::vector<ChunkFile> files = manager.RemoveFiles(bytes);
    pool.RestoreFiles(files, 0);
    if (pool.HasStoppedMovingFiles()) {
        MR_LOG(logger_, 40, "Stop restoring files. You should never see this in a normal behavior");
        return;
    }
    manager.RemoveFiles(files);
    pool.CloseMoveFilesTransaction();
    out.set_size(static_cast<long>(manager.GetMaxTrackSize()));
    MR_LOG(logger_, 30, "T" << id << ": size lowered down to " << manager.GetMaxTrackSize());
}

bool TrackFileMoves::GiveBackUnprotectedFiles(long id, FilesPool& pool,
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
