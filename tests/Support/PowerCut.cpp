// SimulatePowerCut: undoes the effects of an UndoJournal that a power cut
// would lose.
//
// A write or truncation is durable once its file is synced later; a change
// of directory entries (creation, rename, removal, new directory) once every
// directory it touches is synced later. Files are followed across renames,
// so a sync under a file's new name covers what was written under its old
// one. The undo walks the journal backwards; a rename or removal that is
// kept moves the paths that earlier records name.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "tests/Support/UndoJournal.h"

namespace loopstore::test {

namespace {

namespace fs = std::filesystem;
using Kind = UndoRecord::Kind;

bool IsData(Kind kind) {
    return kind == Kind::kWrite || kind == Kind::kTruncate;
}

bool IsDirectoryChange(Kind kind) {
    return kind == Kind::kCreate || kind == Kind::kRename || kind == Kind::kRemove ||
           kind == Kind::kMakeDirectory;
}

std::string Parent(const std::string& path) {
    return fs::path(path).parent_path().string();
}

// Which records a sync made durable.
class Durability {
  public:
    explicit Durability(const std::vector<UndoRecord>& records) : records_(records) {
        std::vector<long> fileOf(records.size(), -1);
        std::map<long, size_t> lastSync;
        std::map<std::string, size_t> lastDirectorySync;
        for (size_t i = 0; i < records.size(); ++i) {
            const UndoRecord& r = records[i];
            if (IsData(r.kind) || r.kind == Kind::kSync)
                fileOf[i] = IdOf(r.path);
            if (r.kind == Kind::kSync)
                lastSync[fileOf[i]] = i;
            if (r.kind == Kind::kSyncDirectory)
                lastDirectorySync[r.path] = i;
            if (r.kind == Kind::kRename || r.kind == Kind::kRemove)
                Move(r.path, r.target);
        }
        durable_.resize(records.size(), true);
        for (size_t i = 0; i < records.size(); ++i) {
            const UndoRecord& r = records[i];
            if (IsData(r.kind)) {
                auto found = lastSync.find(fileOf[i]);
                durable_[i] = found != lastSync.end() && found->second > i;
            } else if (IsDirectoryChange(r.kind)) {
                durable_[i] = true;
                for (const std::string& dir : DirectoriesOf(r)) {
                    auto found = lastDirectorySync.find(dir);
                    durable_[i] =
                        durable_[i] && found != lastDirectorySync.end() && found->second > i;
                }
            }
        }
        fileOf_ = std::move(fileOf);
    }

    bool Durable(size_t i) const { return durable_[i]; }
    long FileOf(size_t i) const { return fileOf_[i]; }

  private:
    static std::vector<std::string> DirectoriesOf(const UndoRecord& r) {
        if (r.kind == Kind::kRename)
            return {Parent(r.path), Parent(r.target)};
        return {Parent(r.path)};  // a removal's place in the trash is the test's
    }

    long IdOf(const std::string& path) {
        auto found = ids_.find(path);
        if (found != ids_.end())
            return found->second;
        return ids_[path] = nextId_++;
    }

    // Follows the files at `from` (or under it) to `to`.
    void Move(const std::string& from, const std::string& to) {
        std::map<std::string, long> moved;
        for (auto it = ids_.begin(); it != ids_.end();) {
            const std::string& path = it->first;
            if (path == from || path.rfind(from + "/", 0) == 0) {
                moved[to + path.substr(from.size())] = it->second;
                it = ids_.erase(it);
            } else {
                ++it;
            }
        }
        for (auto& [path, id] : moved)
            ids_[path] = id;
    }

    const std::vector<UndoRecord>& records_;
    std::map<std::string, long> ids_;
    long nextId_ = 0;
    std::vector<bool> durable_;
    std::vector<long> fileOf_;
};

// The records to undo, as `mode` says.
std::vector<bool> ChooseUndone(const std::vector<UndoRecord>& records, const Durability& durability,
                               CutMode mode, uint64_t seed) {
    std::vector<bool> undo(records.size(), false);
    std::map<long, std::vector<size_t>> lostWrites;
    std::vector<size_t> lostChanges;
    for (size_t i = 0; i < records.size(); ++i) {
        if (durability.Durable(i))
            continue;
        if (IsData(records[i].kind))
            lostWrites[durability.FileOf(i)].push_back(i);
        else if (IsDirectoryChange(records[i].kind))
            lostChanges.push_back(i);
    }
    std::mt19937_64 random(seed);
    auto dropSuffix = [&](const std::vector<size_t>& list, bool keepSome) {
        const size_t kept = keepSome ? random() % (list.size() + 1) : 0;
        for (size_t k = kept; k < list.size(); ++k)
            undo[list[k]] = true;
    };
    for (const auto& [file, list] : lostWrites)
        dropSuffix(list, mode == CutMode::kRandom);
    if (mode != CutMode::kKeepDirectories)
        dropSuffix(lostChanges, mode == CutMode::kRandom);
    return undo;
}

// Paths as earlier records name them, mapped to where kept later renames
// and removals put them.
class Translation {
  public:
    void AddBefore(const std::string& from, const std::string& to) {
        moves_.insert(moves_.begin(), {from, to});
    }
    std::string operator()(std::string path) const {
        for (const auto& [from, to] : moves_) {
            if (path == from || path.rfind(from + "/", 0) == 0)
                path = to + path.substr(from.size());
        }
        return path;
    }

  private:
    std::vector<std::pair<std::string, std::string>> moves_;
};

void RestoreBytes(const std::string& path, const UndoRecord& r, bool truncateAfter) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return;  // the file itself is gone
    if (!r.bytes.empty()) [[maybe_unused]]
        ssize_t n = ::pwrite(fd, r.bytes.data(), r.bytes.size(), static_cast<off_t>(r.offset));
    if (truncateAfter) [[maybe_unused]]
        int rc = ::ftruncate(fd, static_cast<off_t>(r.oldSize));
    ::close(fd);
}

void Undo(const UndoRecord& r, const Translation& translate) {
    std::error_code ignored;
    switch (r.kind) {
        case Kind::kWrite: {
            const std::string path = translate(r.path);
            const bool grew = fs::file_size(path, ignored) > r.oldSize;
            RestoreBytes(path, r, grew);
            break;
        }
        case Kind::kTruncate:
            RestoreBytes(translate(r.path), r, false);
            break;
        case Kind::kCreate:
            fs::remove(translate(r.path), ignored);
            break;
        case Kind::kRename:
        case Kind::kRemove:
            fs::rename(translate(r.target), translate(r.path), ignored);
            break;
        case Kind::kMakeDirectory:
            fs::remove_all(translate(r.path), ignored);
            break;
        default:
            break;
    }
}

}  // namespace

std::string SimulatePowerCut(const std::string& journal, const std::string& trash, CutMode mode,
                             uint64_t seed) {
    const std::vector<UndoRecord> records = UndoJournal::Read(journal);
    const Durability durability(records);
    const std::vector<bool> undo = ChooseUndone(records, durability, mode, seed);
    Translation translate;
    size_t writes = 0, changes = 0;
    std::set<std::string> databases;
    for (size_t i = records.size(); i-- > 0;) {
        const UndoRecord& r = records[i];
        if (r.path.size() > 3 && r.path.compare(r.path.size() - 3, 3, ".db") == 0)
            databases.insert(r.path);
        if (!undo[i]) {
            if (r.kind == Kind::kRename || r.kind == Kind::kRemove)
                translate.AddBefore(r.path, r.target);
            continue;
        }
        Undo(r, translate);
        (IsData(r.kind) ? writes : changes)++;
    }
    std::error_code ignored;
    fs::remove_all(trash, ignored);
    fs::create_directories(trash, ignored);
    for (const std::string& db : databases)
        fs::remove(db + "-shm", ignored);
    fs::remove(journal, ignored);
    std::ostringstream summary;
    summary << "power cut undid " << writes << " writes and " << changes << " directory changes of "
            << records.size() << " effects";
    return summary.str();
}

}  // namespace loopstore::test
