#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Platform/File/SharedChunkFile.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/ThreadAnnotations.h"
#include "Storage/Indexes/File/ChunkFile.h"

// The chunk files of one track that its readers keep open between requests,
// each with the generation read from its header, so that reading a record
// again from a file takes one system call instead of open, header, record
// and close. Shared by all the track's readers: a track holds at most
// `capacity` descriptors however many readers it has, and a file one reader
// opened serves the others. The least recently used file is let go first; it
// closes when no read holds it any more.
//
// An entry is only a cache of a descriptor, keyed by file number (unique on
// the volume; a file keeps it when it moves, and its name is only built to
// open it, not on every read): the track's
// index alone decides what is read where, and each record is checked against
// it (time point, size, generation, checksum). A file recycled meanwhile is
// recognised by the generation of its records (the header is read again); one
// moved to the pool keeps its descriptor valid and is no longer named by the
// index; one removed from the track stays alive on disk until its entry goes,
// at most `capacity` files per track.
//
// Hands out shared references. Thread-safe.
class OpenChunkFiles {
  public:
    // Eight files per track: a hundred tracks stay under the usual limit of
    // 1024 descriptors.
    static constexpr size_t kDefaultCapacity = 8;

    explicit OpenChunkFiles(size_t capacity = kDefaultCapacity);
    OpenChunkFiles(const OpenChunkFiles&) = delete;
    OpenChunkFiles& operator=(const OpenChunkFiles&) = delete;

    // The open file `file`, opened under `root` through the installed Env
    // (outside the lock) when it is not kept; it becomes the most recently
    // used. `opened` tells whether this call opened it. Throws what opening
    // throws, keeping nothing new.
    std::shared_ptr<Moreld::File::SharedChunkFile> Get(const ChunkFile& file,
                                                       const std::string& root, bool& opened);
    // Lets `file` go if it is still the entry of its name: after a failed
    // read, so that the next one starts from a fresh descriptor and header.
    // An entry another reader opened since is kept.
    void Forget(const Moreld::File::SharedChunkFile& file);

    size_t Size() const;

  private:
    struct Entry {
        long fileNumber;
        std::shared_ptr<Moreld::File::SharedChunkFile> file;
    };

    // The entry of `fileNumber` made most recently used; null when not kept.
    std::shared_ptr<Moreld::File::SharedChunkFile> Find(long fileNumber) REQUIRES(mutex_);
    // Keeps `file` unless another reader kept the same number meanwhile; the
    // one kept. The entry let go for it goes to `evicted`, for the caller to
    // close once the lock is released.
    std::shared_ptr<Moreld::File::SharedChunkFile> Keep(
        long fileNumber, std::shared_ptr<Moreld::File::SharedChunkFile> file,
        std::shared_ptr<Moreld::File::SharedChunkFile>& evicted) REQUIRES(mutex_);

    const size_t capacity_;
    mutable Moreld::Tools::Mutex mutex_;
    // Most recently used first; a handful of entries, so a linear search.
    std::vector<Entry> entries_ GUARDED_BY(mutex_);
};
