#pragma once

#include <string>

#include "Storage/Indexes/File/ChunkFile.h"

// Where one chunk's bytes lie: the chunk file, the byte offset inside it, the
// chunk's size and its 0-based position among the file's chunks. A plain
// record with public fields, copied freely; no thread-safety of its own.
struct ChunkLocation {
    ChunkLocation() = default;
    ChunkLocation(const ChunkFile& file, unsigned long offset, unsigned long size,
                  unsigned long chunkIndex);

    // Field by field, the file by ChunkFile::operator==.
    bool operator==(const ChunkLocation& other) const;
    bool operator!=(const ChunkLocation& other) const { return !(*this == other); }

    // "<file.ToString()>;<offset>;<size>;<chunkIndex>".
    std::string ToString() const;

    ChunkFile file;
    // Equals the block's current size when the chunk was placed; the first
    // chunk of a file lies after the 16-byte file header.
    unsigned long offset = 0;
    unsigned long size = 0;
    unsigned long chunkIndex = 0;
};
