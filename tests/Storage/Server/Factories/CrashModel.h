#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace loopstore::test {

// What a crashing client was told, and so what the store must still hold
// after a crash or power cut.
//
// The client (a child process) appends one line per fact to a log with
// plain write(2), which outlives its being killed: an acknowledgement once
// the store's call returned, a withdrawal before the call that may undo an
// earlier one starts. The parent reads the log back into this model. Lines:
//   A <track> <tp> <size>   chunk appended (not yet saved)
//   K <track>               writer closed: every chunk appended is saved
//   X <track>               about to clear, shrink or delete: nothing of it is required
//   E <track> <cutoff>      about to set a max age: from now on, chunks of the track
//                           before cutoff are not required (the highest cutoff
//                           logged holds: a crash may leave an older policy, and
//                           a track's time may start again after a clear)
//   T <track>               track created (acknowledged)
//   D <track>               about to delete the track
//   P <id> <track> <from> <to>   protection acknowledged
//   U <id>                  about to lift it
//   Y <track> <key> <value> property set (acknowledged)
//   Z <track> <key>         about to change or remove it
//   R <track> <tp>          the client read wrong bytes at tp
class CrashModel {
  public:
    // Appends `line` to the log at `path` (one write).
    static void Log(const std::string& path, const std::string& line);
    // Applies every line of the log at `path` read since the last call.
    void ReadLog(const std::string& path);
    // The client's run is over: chunks of writers it never closed were
    // never acknowledged as saved, and a later close must not count them.
    void EndRun() { pending_.clear(); }

    // Saved chunks of each track: tp -> size.
    std::map<long, std::map<int64_t, size_t>> saved;
    std::set<long> tracks;
    struct Protection {
        long track;
        int64_t from, to;
    };
    std::map<long, Protection> protections;
    std::map<std::pair<long, std::string>, std::string> properties;
    std::set<std::pair<long, int64_t>> wrongReads;

  private:
    void Apply(const std::string& line);
    // Forgets the track's chunks that its max age may have purged.
    void DropExpired(long track);

    std::map<long, std::map<int64_t, size_t>> pending_;
    std::map<long, int64_t> expiredBefore_;  // the highest cutoff of each track
    size_t consumed_ = 0;                    // bytes of the log already applied
};

}  // namespace loopstore::test
