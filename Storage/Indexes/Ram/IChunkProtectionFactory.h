#pragma once

#include "Storage/Indexes/Ram/IFileSystemManager.h"

// Makes the handles that index searches return. Implementations must be safe
// to call from several reader threads at once.
class IChunkProtectionFactory {
  public:
    virtual ~IChunkProtectionFactory() = default;
    // A new handle for `chunk`; the caller owns it.
    virtual IFileSystemManager::ChunkHandle Create(const FileSystem::Chunk& chunk) = 0;
};
