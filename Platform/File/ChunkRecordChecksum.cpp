#include "Platform/File/ChunkRecordChecksum.h"

#if defined(__x86_64__)
// libxxhash picks SSE2, AVX2 or AVX-512 at run time through these entry
// points; the plain ones are built for the baseline CPU only.
#include <xxh_x86dispatch.h>
#endif

namespace Moreld::File {

ChunkRecordChecksum::ChunkRecordChecksum() {
    XXH3_64bits_reset(&state_);
}

void ChunkRecordChecksum::Update(const void* data, size_t size) {
    XXH3_64bits_update(&state_, data, size);
}

uint64_t ChunkRecordChecksum::Digest() const {
    return XXH3_64bits_digest(&state_);
}

}  // namespace Moreld::File
