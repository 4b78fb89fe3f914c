#pragma once

#include <set>
#include <string>
#include <vector>

#include "Storage/Indexes/Ram/Block.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

// Rebuilds a track's RAM index from its database (OpenDatabase) and repairs
// the end of the track against its chunk files after an unclean stop
// (HandlePowerFailure): newest first, a block keeps the chunks the database
// lists and its file reads back; a block that keeps none is dropped and the
// one before it is checked in turn.
//
// A short-lived helper of LoopRecordingFileManager, which it befriends: it
// works on the manager's state under the manager's own locks. Both run before
// the track is used.
class TrackIndexRecovery {
  public:
    explicit TrackIndexRecovery(LoopRecordingFileManager& manager) : m_(manager) {}

    // Throws std::runtime_error "Could not open DB on track <id>".
    void OpenDatabase(const std::string& directory);
    void HandlePowerFailure(const std::string& root);

  private:
    // Like every step below, with the manager's files and index locks held.
    void LoadEmptyFiles() REQUIRES(m_.filesMutex_, m_.indexMutex_);
    void LoadBlocks(unsigned long& chunkCount) REQUIRES(m_.filesMutex_, m_.indexMutex_);
    // Indexes the rows of one file as one block; how many fit in it.
    size_t IndexFileRows(const std::vector<FileSystem::Chunk>& rows)
        REQUIRES(m_.filesMutex_, m_.indexMutex_);
    std::set<Moreld::Time::TimePoint> TimePointsInFile(const std::string& root,
                                                       const ChunkFile& file);
    // How many of the block's first chunks read back from its file; sets
    // `matches` when the file holds exactly the block's chunks.
    size_t ReadableChunks(const std::string& root, const FileSystem::Block& block, bool& matches);
    void DropNewestBlock(const FileSystem::Block& block) REQUIRES(m_.filesMutex_, m_.indexMutex_);
    // The block and the database keep only its first `kept` chunks.
    void KeepFirstChunks(const FileSystem::Block& block, size_t kept)
        REQUIRES(m_.filesMutex_, m_.indexMutex_);

    LoopRecordingFileManager& m_;
};
