#pragma once

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "Platform/Logging/Logger.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Block.h"
#include "Storage/Indexes/Ram/TrackCounters.h"

// The bookkeeping of a track's files: which file each block holds, which
// files are empty, which blocks may be recycled, and the moves between them:
// choosing the file of a new block (empty files first, then the oldest
// recyclable block), giving files back to the pool, turning blocks back into
// empty files (clear, retention by age), forgetting named files.
//
// A view over the containers the track index owns: it keeps references and
// no state, and is valid while they are. No thread-safety of its own: the
// caller holds the index's files lock, and its index lock exclusively for
// any operation that touches blocks. Nothing here reaches the database; the
// caller records what the view reports.
class TrackFileBook {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    using Blocks = std::map<TimePoint, FileSystem::Block>;
    // Files the caller wants left where they are (the file being written).
    using Keep = std::function<bool(const ChunkFile&)>;

    // The file a new block goes to, and where it came from.
    struct FileChoice {
        ChunkFile file;
        bool recycled = false;
        TimePoint recycledKey;
    };

    // What an operation took away: the payload bytes of the blocks dropped,
    // and the bytes of the files that left the track.
    struct Freed {
        unsigned long payload = 0;
        unsigned long fileBytes = 0;
    };

    TrackFileBook(Blocks& blocks, std::deque<ChunkFile>& emptyFiles,
                  std::set<TimePoint>& recyclableKeys, long trackId,
                  const tav::mr::logging::Logger& logger)
        : blocks_(blocks),
          emptyFiles_(emptyFiles),
          recyclableKeys_(recyclableKeys),
          trackId_(trackId),
          logger_(logger) {}

    // The front empty file, else the oldest recyclable block's file; sets
    // `loopRecording` as the choice says (logging the start of the loop).
    // Throws std::runtime_error when no file is left or the file cannot hold
    // `size` bytes; nothing but `loopRecording` changes then.
    FileChoice ChooseForNewBlock(const TimePoint& tp, unsigned long size, bool& loopRecording);
    // The front empty file, for the first block of a track without one;
    // clears `loopRecording`. Throws std::runtime_error when there is none
    // or it is smaller than `size`; the queue is unchanged either way.
    ChunkFile FirstEmptyFile(const TimePoint& tp, unsigned long size, bool& loopRecording);
    // Takes the chosen file out of the empty files or out of its block;
    // returns the payload bytes of the block dropped. Throws
    // std::runtime_error when the recycled block has gone.
    unsigned long Release(const FileChoice& choice);
    // The new newest block, under key `tp`, filling `file`; the previous
    // newest gives back its spare room.
    FileSystem::Block& OpenBlock(const TimePoint& tp, const ChunkFile& file);

    // Empty files, front first, then recyclable blocks, oldest first, until
    // freed.fileBytes reaches `size`; the last file may overshoot.
    std::vector<ChunkFile> TakeEmptyFiles(unsigned long size, Freed& freed, const Keep& keep);
    std::vector<ChunkFile> TakeRecyclableBlocks(unsigned long size, Freed& freed, const Keep& keep);
    // Every recyclable block becomes an empty file at the back of the queue.
    std::vector<ChunkFile> EmptyRecyclableBlocks(Freed& freed);
    // The same for the recyclable blocks, oldest first, whose content ends at
    // or before `cutoff`; stops at the first one that does not, or is kept.
    std::vector<ChunkFile> EmptyBlocksEndingBy(const TimePoint& cutoff, Freed& freed,
                                               const Keep& keep);
    // Queues `files` as empty, at the back; returns their bytes.
    unsigned long AddEmptyFiles(const std::vector<ChunkFile>& files);
    // Forget `file`, as an empty file or with the block it holds.
    bool RemoveEmptyFile(const ChunkFile& file, Freed& freed);
    bool RemoveBlockOfFile(const ChunkFile& file, Freed& freed);

    // The summaries of RemoveFiles and Clear.
    void LogRemoved(size_t emptyFiles, size_t blocks, unsigned long bytes,
                    const TrackCounters& counters) const;
    void LogCleared(size_t blocks) const;

  private:
    // Throws std::runtime_error when a chunk of `size` bytes exceeds `file`.
    void CheckRoom(const ChunkFile& file, unsigned long size) const;
    // Logs a recyclable key without its block and drops it; the next key.
    std::set<TimePoint>::iterator DropMissingKey(std::set<TimePoint>::iterator key,
                                                 const char* what);
    // Drops the block and counts its payload; its key is the caller's.
    ChunkFile DropBlock(Blocks::iterator block, Freed& freed);
    // Drops the block and queues its file as empty.
    ChunkFile EmptyBlock(Blocks::iterator block, Freed& freed);

    Blocks& blocks_;
    std::deque<ChunkFile>& emptyFiles_;
    std::set<TimePoint>& recyclableKeys_;
    const long trackId_;
    const tav::mr::logging::Logger& logger_;
};
