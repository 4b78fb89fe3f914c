#include "Storage/Indexes/File/FilesPool.h"

#include <boost/filesystem.hpp>

#include <chrono>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Platform/File/Env.h"
#include "Platform/File/ExtendedAttributes.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Services/StorageErrors.h"
#include "Platform/Tools/DirectoryParser.h"
#include "Platform/Tools/MutexLock.h"
#include "Platform/Tools/PrintIntegers.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/File/ExtendedAttributeNames.h"

namespace fs = boost::filesystem;

namespace {

constexpr uint64_t kBytesPerMB = 1000000;

// Renames `source` to `destination`; "" on success, else the system's reason.
std::string Rename(const std::string& source, const std::string& destination) {
    const std::error_code error = Moreld::File::Env::Get().Rename(source, destination);
    return error ? error.message() : std::string();
}

bool Exists(const std::string& path) {
    boost::system::error_code error;
    return fs::exists(path, error) && !error;
}

}  // namespace

FilesPool::FilesPool()
    : cursor_(files_.begin()), logger_(tav::mr::logging::LoggingManager::GetLogger("FilesPool")) {}

FilesPool::~FilesPool() = default;

std::vector<ChunkFile> FilesPool::OpenDatabase(const std::string& directory) {
    Moreld::Tools::MutexLock lock(mutex_);
    // A database that failed to open is still treated as open: every later
    // statement then fails loudly in the SQLite wrapper instead of silently
    // doing nothing.
    db_.Open(directory);
    dbOpen_ = true;
    const long nbFiles = db_.GetNumberFiles();
    poolDirectory_ = db_.GetPoolDirectory();
    tracksRoot_ = db_.GetTracksDirectory();

    LoadFiles();
    std::vector<ChunkFile> interrupted = db_.GetMovingFiles();
    RecoverInterruptedFiles(interrupted);

    const std::string first = files_.empty() ? std::string() : files_.begin()->GetFileName();
    const std::string last = files_.empty() ? std::string() : files_.rbegin()->GetFileName();
    MR_LOG(logger_, 30,
           "Found " << nbFiles << " files from DB " << db_.GetDBFile() << " from " << first
                    << " to " << last);
    return interrupted;
}

void FilesPool::LoadFiles() {
    files_.clear();
    std::set<long> trackIds;
    uint64_t lent = 0;
    for (const ChunkFile& file : db_.GetAllFiles()) {
        files_.insert(file);
        if (file.GetDirectoryNumber() != 0) {
            trackIds.insert(file.GetDirectoryNumber());
            ++lent;
        }
    }
    // Every file of a pool has the size of the files it was linked with.
    fileSize_ = files_.empty() ? 0 : static_cast<uint64_t>(files_.begin()->Size());
    nbMovedFiles_ = lent;
    remainingSpace_ = (files_.size() - lent) * fileSize_;
    cursor_ = files_.begin();

    MR_LOG(logger_, 30, "Remaining space: " << remainingSpace_ / kBytesPerMB << "MB");
    if (trackIds.empty()) {
        MR_LOG(logger_, 30, "These files are all in the pool directory ");
    } else {
        MR_LOG(logger_, 30,
               "These files are spread through the track directories: \""
                   << Moreld::Tools::PrintIntegers(trackIds) << "\"");
    }
}

void FilesPool::RecoverInterruptedFiles(const std::vector<ChunkFile>& files) {
    std::set<long> tracks;
    for (const ChunkFile& file : files) {
        if (file.GetDirectoryNumber() == 0) {
            RecoverRestoredFile(file);
            tracks.insert(file.GetFifthValue());
        } else {
            RecoverMovedFile(file);
            tracks.insert(file.GetDirectoryNumber());
        }
    }
    if (!files.empty()) {
        SyncDirectories(tracks);
    }
}

void FilesPool::SyncDirectories(const std::set<long>& tracks) const {
    SyncDirectory(poolDirectory_);
    for (long track : tracks) {
        SyncDirectory((fs::path(tracksRoot_) / std::to_string(track)).string());
    }
}

void FilesPool::SyncDirectory(const std::string& directory) const {
    // A rename is durable only once its directories are: the track's index
    // must not list a file whose move a power cut can still undo. A track
    // directory already removed (a deletion finished) has nothing to sync.
    const std::error_code error = Moreld::File::Env::Get().SyncDirectory(directory);
    if (error && error != std::errc::no_such_file_or_directory) {
        Refuse("Cannot sync directory " + directory + ": " + error.message());
    }
}

void FilesPool::RecoverRestoredFile(const ChunkFile& file) {
    // The row already says "in the pool"; its status names the track it left.
    ChunkFile inTrack = file;
    inTrack.SetDirectoryNumber(file.GetFifthValue());
    const std::string source = inTrack.GetAbsoluteFileName(tracksRoot_, false);
    const std::string destination = file.GetAbsoluteFileName(poolDirectory_, true);
    std::string outcome = Rename(source, destination);
    if (outcome.empty()) {
        outcome = "done";
    } else if (!Exists(source)) {
        outcome = "already in pool";
    }
    MR_LOG(logger_, 10,
           "Recovered restored file " << source << " to " << destination << ": " << outcome);
}

void FilesPool::RecoverMovedFile(const ChunkFile& file) {
    const std::string source = file.GetAbsoluteFileName(poolDirectory_, true);
    const std::string destination = file.GetAbsoluteFileName(tracksRoot_, false);
    std::string outcome = Rename(source, destination);
    if (outcome.empty()) {
        outcome = "done";
        // The move was interrupted before any chunk could be written to it.
        try {
            Moreld::File::ExtendedAttributes::Write(destination, ExtendedAttributeNames::kEmptyFile,
                                                    "1");
        } catch (const std::exception& e) {
            MR_LOG(logger_, 40, "Couldn't mark " << destination << " as empty: " << e.what());
        }
    } else if (!Exists(source)) {
        outcome = "already moved";
    }
    MR_LOG(logger_, 10,
           "Recovered moved file " << source << " to " << destination << ": " << outcome);
}

void FilesPool::LinkToDirectory(const std::string& poolDirectory) {
    Moreld::Tools::MutexLock lock(mutex_);
    if (!dbOpen_) {
        Refuse("Cannot link to directory " + poolDirectory + ": open database first");
    }
    if (!files_.empty() && !poolDirectory_.empty()) {
        Refuse("Cannot link to directory " + poolDirectory +
               ": pool is already linked to some files. Unlink all the files if you want to "
               "relink.");
    }
    MR_LOG(logger_, 30, "Will scan directory " << poolDirectory << " ...");
    uint64_t fileSize = 0;
    FileSet found = ScanPoolDirectory(poolDirectory, fileSize);

    // The files first, in one durable transaction, and the pool directory
    // last: a database without its pool directory is a link that did not
    // complete (IsLinked), whose rows are dropped and linked again.
    db_.RemoveAllFiles();
    db_.AddFiles(found);
    db_.SetPoolDirectory(poolDirectory);
    poolDirectory_ = poolDirectory;
    files_ = std::move(found);
    fileSize_ = fileSize;
    nbMovedFiles_ = 0;
    remainingSpace_ = files_.size() * fileSize_;
    cursor_ = files_.begin();

    if (files_.empty()) {
        MR_LOG(logger_, 30, "In directory " << poolDirectory << ": Didn't find any files");
        return;
    }
    MR_LOG(logger_, 30,
           "In directory " << poolDirectory << ": Found " << files_.size() << " files of size "
                           << fileSize_ << " from file " << files_.begin()->GetFileName() << " to "
                           << files_.rbegin()->GetFileName()
                           << ". Remaining space: " << remainingSpace_ / kBytesPerMB << "MB");
}

FilesPool::FileSet FilesPool::ScanPoolDirectory(const std::string& poolDirectory,
                                                uint64_t& fileSize) const {
    FileSet found;
    bool sized = false;
    Moreld::Tools::DirectoryParser parser(poolDirectory);
    std::string entry;
    while (parser.Next(entry)) {
        boost::system::error_code error;
        if (!fs::is_regular_file(entry, error)) {
            continue;
        }
        const uint64_t size = fs::file_size(entry, error);
        ChunkFile file;
        if (error || !file.FromFile(entry, static_cast<long>(size))) {
            continue;
        }
        // A name the pool would not print back the same way ("12abc", "+12")
        // could never be found again by number.
        if (file.GetFileName() != fs::path(entry).filename().string()) {
            MR_LOG(logger_, 40, "Skipping " << entry << ": not named by its number");
            continue;
        }
        if (sized && size != fileSize) {
            Refuse("All files in " + poolDirectory + " must have the same size. We found " +
                   std::to_string(fileSize) + " and " + std::to_string(size));
        }
        fileSize = size;
        sized = true;
        // The pool directory's own name may be a number; its files are free.
        file.SetDirectoryNumber(0);
        found.insert(file);
    }
    return found;
}

void FilesPool::SetTrackDirectory(const std::string& tracksRoot) {
    Moreld::Tools::MutexLock lock(mutex_);
    if (!dbOpen_) {
        Refuse("Cannot set track directories " + tracksRoot + ": open database first");
    }
    if (!tracksRoot_.empty()) {
        Refuse("track directories already set to " + tracksRoot_);
    }
    boost::system::error_code error;
    if (!fs::is_directory(tracksRoot, error)) {
        Refuse("track directories " + tracksRoot +
               " must be created before being set to the FilesPool");
    }
    db_.SetTracksDirectory(tracksRoot);
    tracksRoot_ = tracksRoot;
}

unsigned long FilesPool::MoveFiles(long trackId, unsigned long size, std::vector<ChunkFile>& moved,
                                   unsigned long waitMs) {
    // Held from the first check on, so that nothing changes between the
    // checks and the move.
    Moreld::Tools::MutexLock lock(mutex_);
    if (files_.empty()) {
        RefuseForRoom("FilesPool: There is no file available to move on " + poolDirectory_);
    }
    if (tracksRoot_.empty()) {
        Refuse("Tracks directories not set to MoveFiles");
    }
    const std::string destination = CheckMoveRequest(trackId);
    CheckFreeSpace(size);

    moved.clear();
    std::vector<FileSet::iterator> selected;
    FileSet::iterator cursor = cursor_;
    const unsigned long total = SelectFiles(size, selected, cursor);
    for (const auto& it : selected) {
        moved.push_back(*it);
        moved.back().SetDirectoryNumber(trackId);
    }
    MR_LOG(logger_, 30,
           "Request to move files to reach a size of " << size << " to " << destination);
    MR_LOG(logger_, 30, moved.size() << " files moved for a total size of " << total);
    if (total < size) {
        MR_LOG(logger_, 40, "We could'nt reach a size of " << size << ", we only got " << total);
    }

    // Recorded before anything changes in memory or on disk: an SQL error
    // leaves the pool as it was, and a crash after it is finished by
    // OpenDatabase.
    try {
        db_.MoveToTrack(moved, trackId);
    } catch (...) {
        moved.clear();
        throw;
    }
    for (const auto& it : selected) {
        Entry(it).SetDirectoryNumber(trackId);
    }
    cursor_ = cursor;
    nbMovedFiles_ += moved.size();
    remainingSpace_ -= total;
    stopped_ = false;

    const unsigned long handled = RenameToTrack(moved, waitMs);
    SyncDirectories({trackId});
    MR_LOG(
        logger_, 30,
        "Finished moving " << handled << " files from " << poolDirectory_ << " to " << destination);
    return total;
}

std::string FilesPool::CheckMoveRequest(long trackId) const {
    // Directory number 0 means "free in the pool": a file lent to track 0 or
    // below could never be told apart from a free one.
    if (trackId <= 0) {
        Refuse("Invalid track id " + std::to_string(trackId) + " to MoveFiles in FilesPool on " +
               poolDirectory_);
    }
    boost::system::error_code error;
    if (!fs::is_directory(poolDirectory_, error)) {
        Refuse("Pool directory " + poolDirectory_ + " is missing: cannot move files to track " +
               std::to_string(trackId));
    }
    const std::string destination = (fs::path(tracksRoot_) / std::to_string(trackId)).string();
    if (!fs::is_directory(destination, error)) {
        Refuse(destination + " is not a directory in FilesPool on " + poolDirectory_);
    }
    if (fs::equivalent(destination, poolDirectory_, error) && !error) {
        Refuse("destination and pool directory cannot be the same: " + destination);
    }
    return destination;
}

void FilesPool::CheckFreeSpace(unsigned long size) const {
    const uint64_t freeFiles = files_.size() - nbMovedFiles_;
    const uint64_t freeBytes = freeFiles * fileSize_;
    if (freeBytes >= size) {
        return;
    }
    // One more than needed when the shortfall is a whole number of files;
    // operators are used to this count.
    const uint64_t more = fileSize_ == 0 ? 0 : (size - freeBytes) / fileSize_ + 1;
    RefuseForRoom("Only " + std::to_string(freeFiles) + " free files remaining with a size of " +
                  std::to_string(fileSize_) +
                  " each. Impossible to move enough files to reach a size of " +
                  std::to_string(size) + " in FilesPool on " + poolDirectory_ + ". You need " +
                  std::to_string(more) + " more files to do this move.");
}

unsigned long FilesPool::SelectFiles(unsigned long size, std::vector<FileSet::iterator>& selected,
                                     FileSet::iterator& cursor) const {
    unsigned long total = 0;
    if (size == 0) {
        return total;
    }
    const FileSet::iterator start = cursor;
    do {
        if (cursor->GetDirectoryNumber() == 0 && HasPoolFileSize(*cursor)) {
            selected.push_back(cursor);
            total += fileSize_;
        }
        if (++cursor == files_.end()) {
            cursor = files_.begin();
        }
    } while (cursor != start && total < size);
    return total;
}

bool FilesPool::HasPoolFileSize(const ChunkFile& file) const {
    // A file truncated or grown behind the store's back would refuse chunks
    // its track counts on; start-up has reported it.
    boost::system::error_code error;
    const uintmax_t size = fs::file_size(file.GetAbsoluteFileName(poolDirectory_, true), error);
    return error.failed() || size == fileSize_;
}

unsigned long FilesPool::RenameToTrack(const std::vector<ChunkFile>& moved, unsigned long waitMs) {
    unsigned long handled = 0;
    for (const ChunkFile& file : moved) {
        const std::string source = file.GetAbsoluteFileName(poolDirectory_, true);
        const std::string destination = file.GetAbsoluteFileName(tracksRoot_, false);
        MR_LOG(logger_, 10, "Moving file " << source << " to " << destination);
        const std::string failure = Rename(source, destination);
        if (!failure.empty()) {
            // The file stays lent: the track's index will see it missing.
            MR_LOG(logger_, 40,
                   "Couldn't move file " << source << " to " << destination << ": " << failure);
        }
        LOOPSTORE_SYNC_POINT("FilesPool::MoveFiles:Moved");
        ++handled;
        if (ShouldStop(handled, moved.size(), "move")) {
            break;
        }
        Wait(waitMs);
    }
    return handled;
}

void FilesPool::RestoreFiles(const std::vector<ChunkFile>& files, unsigned long waitMs) {
    Moreld::Tools::MutexLock lock(mutex_);
    if (files.empty()) {
        MR_LOG(logger_, 20, "No files specified when RestoreFiles");
        return;
    }
    std::vector<FileSet::iterator> entries;
    const std::vector<ChunkFile> restored = FindLentFiles(files, entries);

    const long track = files.front().GetDirectoryNumber();
    // Recorded before anything changes, as in MoveFiles.
    db_.SetRestoringStatus(track);
    db_.ReturnToPool(restored);
    for (size_t i = 0; i < entries.size(); ++i) {
        Entry(entries[i]).SetDirectoryNumber(0);
        Entry(entries[i]).SetFromEmptyFile(restored[i].IsFromEmptyFile());
    }
    nbMovedFiles_ -= entries.size();
    remainingSpace_ += entries.size() * fileSize_;
    stopped_ = false;

    const unsigned long handled = RenameToPool(restored, waitMs);
    SyncDirectories({track});
    db_.SetRestoringStatus(0);
    MR_LOG(logger_, 30,
           "Finished restoring " << handled << " files from "
                                 << (fs::path(tracksRoot_) / std::to_string(track)).string()
                                 << " to " << poolDirectory_);
}

std::vector<ChunkFile> FilesPool::FindLentFiles(const std::vector<ChunkFile>& files,
                                                std::vector<FileSet::iterator>& entries) {
    std::vector<ChunkFile> lent;
    for (const ChunkFile& file : files) {
        const auto it = files_.find(file);
        if (it == files_.end()) {
            MR_LOG(logger_, 40,
                   "File " << file << " is not found in the pool: we cannot restore it");
            continue;
        }
        // Freeing a file that is free, or lent elsewhere, would break the
        // counters and send a file the pool cannot find to the pool.
        if (it->GetDirectoryNumber() == 0 ||
            it->GetDirectoryNumber() != file.GetDirectoryNumber()) {
            MR_LOG(logger_, 40,
                   "File " << file << " is not lent to track " << file.GetDirectoryNumber()
                           << ": we cannot restore it");
            continue;
        }
        entries.push_back(it);
        lent.push_back(file);
    }
    return lent;
}

unsigned long FilesPool::RenameToPool(const std::vector<ChunkFile>& files, unsigned long waitMs) {
    unsigned long handled = 0;
    for (const ChunkFile& file : files) {
        const std::string source = file.GetAbsoluteFileName(tracksRoot_, false);
        const std::string destination = file.GetAbsoluteFileName(poolDirectory_, true);
        MR_LOG(logger_, 10, "Restoring file " << source << " to pool " << destination);
        const std::string failure = Rename(source, destination);
        if (!failure.empty()) {
            MR_LOG(logger_, 40,
                   "Couldn't restore file " << source << " to " << destination << ": " << failure);
        }
        LOOPSTORE_SYNC_POINT("FilesPool::RestoreFiles:Restored");
        ++handled;
        if (ShouldStop(handled, files.size(), "restore")) {
            break;
        }
        Wait(waitMs);
    }
    return handled;
}

bool FilesPool::ShouldStop(unsigned long handled, size_t total, const char* what) {
    const unsigned long stopCount = stopCount_;
    if (stopCount == 0 || stopCount > handled) {
        return false;
    }
    MR_LOG(logger_, 30,
           "Request to stop moving files while there were still " << total - handled << " files to "
                                                                  << what);
    stopped_ = true;
    return true;
}

void FilesPool::Wait(unsigned long waitMs) {
    if (waitMs != 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    }
}

std::vector<ChunkFile> FilesPool::GetMovedFiles(long trackId) const {
    Moreld::Tools::MutexLock lock(mutex_);
    std::vector<ChunkFile> lent;
    for (const ChunkFile& file : files_) {
        if (file.GetDirectoryNumber() == trackId) {
            lent.push_back(file);
        }
    }
    return lent;
}

std::vector<ChunkFile> FilesPool::GetFiles() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return std::vector<ChunkFile>(files_.begin(), files_.end());
}

bool FilesPool::IsStateCoherent() const {
    Moreld::Tools::MutexLock lock(mutex_);
    for (const ChunkFile& file : files_) {
        const bool inPool = file.GetDirectoryNumber() == 0;
        const std::string path = inPool ? file.GetAbsoluteFileName(poolDirectory_, true)
                                        : file.GetAbsoluteFileName(tracksRoot_, false);
        if (!Exists(path)) {
            MR_LOG(
                logger_, 40,
                "File " << file
                        << (inPool ? " should exist in pool" : " should exist in track directory"));
            return false;
        }
    }
    return true;
}

void FilesPool::CloseMoveFilesTransaction() {
    Moreld::Tools::MutexLock lock(mutex_);
    db_.CloseMoveTransaction();
}

std::string FilesPool::GetDBFile(const std::string& directory) const {
    return PoolDB::GetDBFile(directory);
}

void FilesPool::Refuse(const std::string& message) const {
    MR_LOG(logger_, 50, message);
    throw std::runtime_error(message);
}

void FilesPool::RefuseForRoom(const std::string& message) const {
    MR_LOG(logger_, 50, message);
    throw MoreldStorageApi::OutOfSpaceError(message);
}

bool FilesPool::IsLinked() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return !poolDirectory_.empty();
}

std::string FilesPool::GetTrackDirectory() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return tracksRoot_;
}
