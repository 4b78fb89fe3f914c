#pragma once

#ifndef XXH_STATIC_LINKING_ONLY
#define XXH_STATIC_LINKING_ONLY  // XXH3_state_t on the stack: no allocation per record
#endif
#include <xxhash.h>

#include <cstddef>
#include <cstdint>

namespace Moreld::File {

// The checksum of one record: XXH3 (64 bits) streamed over the record
// header's first 40 bytes, then the property block, then the payload. Large
// updates use the widest vector unit of the CPU.
//
// A value on the stack; not synchronised.
class ChunkRecordChecksum {
  public:
    ChunkRecordChecksum();
    ChunkRecordChecksum(const ChunkRecordChecksum&) = delete;
    ChunkRecordChecksum& operator=(const ChunkRecordChecksum&) = delete;

    void Update(const void* data, size_t size);
    uint64_t Digest() const;

  private:
    XXH3_state_t state_;
};

}  // namespace Moreld::File
