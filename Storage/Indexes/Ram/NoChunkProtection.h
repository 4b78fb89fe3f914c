#pragma once

#include "Storage/Indexes/Ram/IFileSystemManager.h"

// The default handle: carries a copy of the chunk found and protects nothing.
class NoChunkProtection : public IFileSystemManager::IChunkProtection {
  public:
    explicit NoChunkProtection(const FileSystem::Chunk& chunk) : chunk_(chunk) {}
    FileSystem::Chunk GetChunk() const override { return chunk_; }

  private:
    FileSystem::Chunk chunk_;
};
