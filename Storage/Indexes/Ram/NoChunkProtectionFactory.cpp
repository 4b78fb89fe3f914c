#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"

#include "Storage/Indexes/Ram/NoChunkProtection.h"

IFileSystemManager::ChunkHandle NoChunkProtectionFactory::Create(const FileSystem::Chunk& chunk) {
    return std::make_unique<NoChunkProtection>(chunk);
}
