#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace loopstore::test {

// One effect on the file system, with what it takes to undo it.
struct UndoRecord {
    enum class Kind : uint8_t {
        kWrite = 1,      // path: `bytes` were at offset (clipped to oldSize); oldSize was the size
        kTruncate,       // path: cut to offset; `bytes` were the tail, oldSize the size
        kSync,           // path: the file's content is durable
        kCreate,         // path: a new file
        kRename,         // path renamed to target
        kRemove,         // path (file or tree) removed; kept at target until durable
        kMakeDirectory,  // path
        kSyncDirectory,  // path: the entries of this directory are durable
    };
    Kind kind = Kind::kWrite;
    std::string path;
    std::string target;
    uint64_t offset = 0;
    uint64_t oldSize = 0;
    std::string bytes;
};

// An append-only file of UndoRecords, each written (plain write(2), no sync:
// it need only outlive the process, not the machine) before its effect.
// Not thread-safe.
class UndoJournal {
  public:
    // Creates or truncates `path`. Throws std::runtime_error on failure.
    explicit UndoJournal(const std::string& path);
    ~UndoJournal();
    UndoJournal(const UndoJournal&) = delete;
    UndoJournal& operator=(const UndoJournal&) = delete;

    void Append(const UndoRecord& record);
    // A kWrite record for `size` bytes at `offset` of the existing file
    // `path`, holding the bytes it is about to overwrite.
    void AppendWrite(const std::string& path, uint64_t offset, uint64_t size);
    void AppendTruncate(const std::string& path, uint64_t size);

    // Every record of the journal at `path`, in order. A torn last record
    // (the process died while writing it) is dropped.
    static std::vector<UndoRecord> Read(const std::string& path);

  private:
    int fd_;
};

// What a power cut keeps of the effects that were not made durable.
enum class CutMode {
    kDropAll,          // nothing
    kKeepDirectories,  // directory changes (a journaling file system); no unsynced data
    kRandom,           // a random prefix of each file's writes and of the directory changes
};

// Undoes, in the file system, what a power cut at the end of the journal at
// `journal` loses, as `mode` says (`seed` drives kRandom); then empties
// `trash`, drops the databases' shared-memory files (a cache SQLite rebuilds)
// and removes the journal. No process may have the store open. Returns a
// one-line summary of what was undone.
std::string SimulatePowerCut(const std::string& journal, const std::string& trash, CutMode mode,
                             uint64_t seed);

}  // namespace loopstore::test
