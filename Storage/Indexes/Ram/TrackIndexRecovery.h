#pragma once

#include <string>

#include "Storage/Indexes/Ram/Block.h"

class LoopRecordingFileManager;

// Rebuilds a track's RAM index from its database (OpenDatabase) and repairs
// the end of the track against its chunk files after an unclean stop
// (HandlePowerFailure): the newest blocks are checked, newest first, and
// dropped whole until one matches its file.
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
    void LoadEmptyFiles();
    void LoadBlocks(unsigned long& chunkCount);
    bool FileMatchesBlock(const std::string& root, const FileSystem::Block& block);
    void DropNewestBlock(const FileSystem::Block& block);

    LoopRecordingFileManager& m_;
};
