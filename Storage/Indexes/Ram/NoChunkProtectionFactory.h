#pragma once

#include "Storage/Indexes/Ram/IChunkProtectionFactory.h"

// Makes NoChunkProtection handles. Stateless, so safe from any thread.
class NoChunkProtectionFactory : public IChunkProtectionFactory {
  public:
    IFileSystemManager::ChunkHandle Create(const FileSystem::Chunk& chunk) override;
};
