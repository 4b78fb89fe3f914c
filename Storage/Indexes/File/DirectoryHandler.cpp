#include "Storage/Indexes/File/DirectoryHandler.h"

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "Platform/File/Env.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/DirectoryParser.h"
#include "Platform/Tools/MutexLock.h"

namespace fs = std::filesystem;

namespace {

bool IsDirectory(const std::string& path) {
    std::error_code ignored;
    return fs::is_directory(fs::status(path, ignored));
}

// Creates `path` and makes its entry durable before anything is put in it:
// a track directory lost by a power cut would orphan the files moved there.
std::error_code CreateDurably(const std::string& path, const std::string& root) {
    Moreld::File::Env& env = Moreld::File::Env::Get();
    std::error_code error = env.CreateDirectory(path);
    return error ? error : env.SyncDirectory(root);
}

// The name this handler gives track `id`: its decimal text.
bool IsTrackName(const std::string& name, long id) {
    return id > 0 && name == std::to_string(id);
}

}  // namespace

DirectoryHandler::DirectoryHandler(const std::string& root)
    : logger_(tav::mr::logging::LoggingManager::GetLogger("DirectoryHandler")) {
    std::error_code error;
    const fs::file_status status = fs::status(root, error);
    if (error || !fs::exists(status)) {
        MR_LOG(logger_, 30, "Directory " << root << " created");
        // A failure shows in the check below, which names the root.
        CreateDurably(root, Moreld::File::ParentDirectory(root));
    }
    if (!IsDirectory(root)) {
        const std::string message = root + " is not a directory";
        MR_LOG(logger_, 50, message);
        throw std::runtime_error(message);
    }
    root_ = root;
    ParseDirectory(root_);
}

bool DirectoryHandler::Exist(long id) const {
    Moreld::Tools::MutexLock lock(mutex_);
    return ids_.count(id) != 0;
}

std::string DirectoryHandler::GetPath(long id) const {
    if (!Exist(id)) {
        Moreld::Tools::MutexLock lock(mutex_);
        MR_LOG(logger_, 50,
               "Directory " << id << " doesn't exist. Root directory is " << root_
                            << " and available sub-directories are: " << KnownIdsText());
    }
    return JoinPath(id);
}

bool DirectoryHandler::Create(long id) {
    Moreld::Tools::MutexLock lock(mutex_);
    if (ids_.count(id) != 0) {
        MR_LOG(logger_, 40, "Directory " << root_ << "/" << id << " already exists");
        return false;
    }
    const std::string path = JoinPath(id);
    // A directory already on disk is a failure too, as the id was not known.
    if (CreateDurably(path, root_)) {
        const std::string message = "Directory " + path + " could not be created";
        MR_LOG(logger_, 50, message);
        throw std::runtime_error(message);
    }
    ids_.insert(id);
    MR_LOG(logger_, 30, "Directory " << path << " created");
    return true;
}

long DirectoryHandler::Create() {
    Moreld::Tools::MutexLock lock(mutex_);
    const long id = ids_.empty() ? 1 : *ids_.rbegin() + 1;
    const std::string path = JoinPath(id);
    if (CreateDurably(path, root_)) {
        MR_LOG(logger_, 50, "Directory " << path << " could not be created");
        return 0;
    }
    MR_LOG(logger_, 30, "Directory " << path << " created");
    return id;
}

void DirectoryHandler::Delete(long id) {
    const std::string path = JoinPath(id);
    Moreld::File::Env& env = Moreld::File::Env::Get();
    std::error_code error = env.RemoveTree(path);
    if (!error) {
        error = env.SyncDirectory(root_);
    }
    if (error) {
        MR_LOG(logger_, 50, "Error to remove directory " << path << "  -->  " << error.message());
        return;
    }
    MR_LOG(logger_, 30, "Removed directory " << path);
    // Readers of the set run on other threads (writer and reader factories)
    // while a track is deleted.
    Moreld::Tools::MutexLock lock(mutex_);
    ids_.erase(id);
}

std::set<long> DirectoryHandler::GetIds() const {
    Moreld::Tools::MutexLock lock(mutex_);
    return ids_;
}

void DirectoryHandler::ParseDirectory(const std::string& root) {
    Moreld::Tools::MutexLock lock(mutex_);
    Moreld::Tools::DirectoryParser parser(root);
    std::string entry;
    while (parser.Next(entry)) {
        if (IsDirectory(entry)) {
            AddScannedDirectory(entry, root);
        }
    }
    if (!ids_.empty()) {
        MR_LOG(logger_, 30, "Greatest Id is " << *ids_.rbegin() << " on " << root);
    } else {
        MR_LOG(logger_, 30, "No number-directory on " << root);
    }
}

void DirectoryHandler::AddScannedDirectory(const std::string& entry, const std::string& root) {
    const std::string name = fs::path(entry).filename().string();
    long id = 0;
    try {
        id = std::stol(name);
    } catch (const std::exception&) {
        if (name != "." && name != "..") {
            MR_LOG(logger_, 40, "A not-a-number-directory has been discovered: " << entry);
        }
        return;
    }
    // "007", "-3" or "12abc" are not names this handler gives: taking them
    // as tracks would let a track deletion remove a folder the store does
    // not own.
    if (!IsTrackName(name, id)) {
        MR_LOG(logger_, 40, "Ignoring directory " << entry << ": not a track directory name");
        return;
    }
    ids_.insert(id);
    MR_LOG(logger_, 20, "Found directory " << entry << " on " << root);
}

std::string DirectoryHandler::JoinPath(long id) const {
    return (fs::path(root_) / std::to_string(id)).string();
}

std::string DirectoryHandler::KnownIdsText() const {
    std::ostringstream text;
    for (long id : ids_) {
        text << id << " ";
    }
    return text.str();
}
