#pragma once

#include <memory>

#include "Platform/Plexa/DataChunk.h"
#include "Storage/Indexes/Ram/Chunk.h"

// Receives the chunks a ThreadedChunkCache's flusher thread takes out of the
// cache, one at a time and in time order. In practice the track's writer: it
// writes each chunk to its file and then reports it handled to the cache.
//
// Thread safety: Flush runs on the cache's flusher thread with no cache lock
// held; CacheIsWaiting runs on the inserting thread with the cache lock held
// exclusively, so it must not call back into the cache.
class IChunkFlusher {
  public:
    virtual ~IChunkFlusher() = default;

    // Writes `chunk` out. The cache ignores the record returned (it is the
    // writer's own account of where the chunk went). Must not throw: the
    // flusher thread does not catch. `chunk` may be empty when the chunk left
    // the cache before the thread could take it.
    virtual FileSystem::Chunk Flush(std::shared_ptr<Moreld::Plexa::DataChunk> chunk) = 0;

    // True just before an insertion starts waiting for room, false once it
    // has been woken.
    virtual void CacheIsWaiting(bool waiting) = 0;
};
