#pragma once

#include <set>
#include <string>

#include "Platform/Logging/Logger.h"
#include "Platform/Tools/Mutex.h"

// Owns the tracks root directory and its numbered sub-directories, one per
// track: track 7 lives in root/7 (decimal, no leading zeros). Finds the
// existing track directories at construction, creates and deletes them, and
// tells whether a track directory is known and where it is.
//
// The set of known ids holds the numeric directory names found by scans plus
// the ids created with Create(long) since. Create() does not add its id.
//
// Logging ("DirectoryHandler"): 50 errors (unknown id asked for, creation or
// removal failed, root not a directory), 40 oddities (not-a-number directory,
// id already known), 30 directories created or removed and scan summaries,
// 20 each directory found by a scan.
//
// Thread safety: Exist, GetPath, both Create and ParseDirectory may be called
// from any thread; one mutex guards the set of ids. Delete removes the
// directory without the mutex and takes it only to forget the id: two
// threads must not delete the same track.
class DirectoryHandler {
  public:
    // Uses `root` as the tracks root, creating it (one level, not its
    // parents) when it does not exist, and scans it. Throws
    // std::runtime_error "<root> is not a directory" when, after that
    // attempt, `root` is not a directory; errors of ParseDirectory propagate.
    explicit DirectoryHandler(const std::string& root);

    DirectoryHandler(const DirectoryHandler&) = delete;
    DirectoryHandler& operator=(const DirectoryHandler&) = delete;

    std::string GetRootDirectory() const { return root_; }

    // True when `id` is a known directory id.
    bool Exist(long id) const;
    // Every known directory id, ascending.
    std::set<long> GetIds() const;

    // root/id. Never throws: for an unknown id the error is logged and the
    // path is returned anyway (the directory may then be missing on disk).
    std::string GetPath(long id) const;

    // Creates root/id and records `id`. Returns false, touching nothing, when
    // `id` is already known. Throws std::runtime_error "Directory <path> could
    // not be created" when the directory cannot be made, including when it
    // already exists on disk; the set is then unchanged.
    bool Create(long id);

    // Creates the directory of the next id: 1 for an empty set, else the
    // greatest known id plus one. Returns that id, or 0 when the directory
    // could not be made. The id is not recorded, so a second call without a
    // rescan picks the same id (and fails, the directory being there).
    long Create();

    // Removes root/id with everything in it and forgets `id`. A failed
    // removal is logged and swallowed; the id then stays known. A missing
    // directory counts as removed.
    void Delete(long id);

    // Scans `root` and adds every sub-directory named as this handler names
    // tracks: a positive decimal id without sign or leading zeros. Others
    // ("007", "-3", "12abc", a number beyond 64 bits) are logged and left
    // alone: they are not the store's. Ids already known are kept. Throws
    // std::runtime_error when `root` cannot be read; the ids added before the
    // failure stay.
    void ParseDirectory(const std::string& root);

  private:
    // root/id, joined without a doubled separator.
    std::string JoinPath(long id) const;
    // "<id> <id> ... " in ascending order.
    std::string KnownIdsText() const REQUIRES(mutex_);
    // Adds the number that leads the directory name of `entry` to ids_, or
    // logs a name without one.
    void AddScannedDirectory(const std::string& entry, const std::string& root) REQUIRES(mutex_);

    tav::mr::logging::Logger logger_;
    std::string root_;
    mutable Moreld::Tools::Mutex mutex_;
    std::set<long> ids_ GUARDED_BY(mutex_);
};
