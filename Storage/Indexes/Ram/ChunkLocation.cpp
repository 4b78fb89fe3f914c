#include "Storage/Indexes/Ram/ChunkLocation.h"

ChunkLocation::ChunkLocation(const ChunkFile& file, unsigned long offset, unsigned long size,
                             unsigned long chunkIndex)
    : file(file), offset(offset), size(size), chunkIndex(chunkIndex) {}

bool ChunkLocation::operator==(const ChunkLocation& other) const {
    return file == other.file && offset == other.offset && size == other.size &&
           chunkIndex == other.chunkIndex;
}

std::string ChunkLocation::ToString() const {
    return file.ToString() + ";" + std::to_string(offset) + ";" + std::to_string(size) + ";" +
           std::to_string(chunkIndex);
}
