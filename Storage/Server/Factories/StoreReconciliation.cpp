#include "Storage/Server/Factories/StoreReconciliation.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "Platform/File/Env.h"
#include "Platform/Logging/LoggingManager.h"

namespace fs = std::filesystem;

namespace {

bool IsFile(const std::string& path) {
    std::error_code error;
    return fs::is_regular_file(path, error);
}

}  // namespace

StoreReconciliation::StoreReconciliation(FilesPool& pool, DirectoryHandler& directories,
                                         LoopRecordingFileManagers& managers,
                                         std::string poolDirectory)
    : pool_(pool),
      directories_(directories),
      managers_(managers),
      poolDirectory_(std::move(poolDirectory)),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopRecordingFactory")) {}

void StoreReconciliation::Run() {
    std::error_code error;
    if (!fs::is_directory(poolDirectory_, error)) {
        MR_LOG(logger_, 50,
               "Pool directory " << poolDirectory_
                                 << " is missing: no file can be lent until it is back");
    }
    for (const ChunkFile& file : pool_.GetFiles()) {
        const std::string place = PlaceOf(file);
        if (!BringBack(file, place))
            continue;
        CheckSize(file, place);
        if (file.GetDirectoryNumber() != 0)
            GiveBackToTrack(file);
    }
}

std::string StoreReconciliation::PlaceOf(const ChunkFile& file) const {
    if (file.GetDirectoryNumber() == 0)
        return file.GetAbsoluteFileName(poolDirectory_, true);
    return file.GetAbsoluteFileName(directories_.GetRootDirectory(), false);
}

bool StoreReconciliation::BringBack(const ChunkFile& file, const std::string& place) {
    if (IsFile(place))
        return true;
    long holder = 0;
    const std::string found = FindElsewhere(file, holder);
    if (found.empty())
        return false;
    ChunkFile asHolders = file;
    asHolders.SetDirectoryNumber(holder);
    if (holder != 0 && managers_.GetManager(holder)->HasFile(asHolders)) {
        // Both databases claim it: moving it would take it from under a track.
        MR_LOG(logger_, 50,
               "File " << found << " is listed by track " << holder
                       << " while pool.db places it in " << place << ": left where it is");
        return false;
    }
    Moreld::File::Env& env = Moreld::File::Env::Get();
    std::error_code error = env.Rename(found, place);
    if (!error)
        error = env.SyncDirectory(Moreld::File::ParentDirectory(place));
    if (!error)
        error = env.SyncDirectory(Moreld::File::ParentDirectory(found));
    if (error) {
        MR_LOG(logger_, 50,
               "Cannot move file " << found << " to " << place
                                   << " where pool.db places it: " << error.message());
        return IsFile(place);
    }
    MR_LOG(logger_, 40, "File " << found << " moved to " << place << " where pool.db places it");
    return true;
}

std::string StoreReconciliation::FindElsewhere(const ChunkFile& file, long& holder) const {
    const long owner = file.GetDirectoryNumber();
    if (owner != 0 && IsFile(file.GetAbsoluteFileName(poolDirectory_, true))) {
        holder = 0;
        return file.GetAbsoluteFileName(poolDirectory_, true);
    }
    for (long track : directories_.GetIds()) {
        ChunkFile there = file;
        there.SetDirectoryNumber(track);
        const std::string path = there.GetAbsoluteFileName(directories_.GetRootDirectory(), false);
        if (track != owner && IsFile(path)) {
            holder = track;
            return path;
        }
    }
    return "";
}

void StoreReconciliation::CheckSize(const ChunkFile& file, const std::string& place) {
    std::error_code error;
    const uintmax_t size = fs::file_size(place, error);
    if (error || size == static_cast<uintmax_t>(file.Size()))
        return;
    MR_LOG(logger_, 50,
           "File " << place << " has " << size << " bytes while the pool's files have "
                   << file.Size() << (file.GetDirectoryNumber() == 0 ? ": it is not lent" : ""));
}

void StoreReconciliation::GiveBackToTrack(const ChunkFile& file) {
    const long track = file.GetDirectoryNumber();
    if (!directories_.Exist(track))
        return;
    ChunkFile owned = file;
    owned.SetFifthValue(0);
    LoopRecordingFileManager& manager = *managers_.GetManager(track);
    if (manager.HasFile(owned))
        return;
    manager.InsertFiles({owned});
    MR_LOG(logger_, 50,
           "T" << track << ": file " << file
               << " is lent to the track but its database does not list it: given back as an "
                  "empty file");
}
