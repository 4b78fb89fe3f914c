#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Platform/File/DataChunkFileReader.h"

// The chunk files one track reader keeps open between requests, each with
// the header it has read, so that reading a record again from a file takes
// one system call instead of open, header, record and close. At most
// `capacity` files stay open; the least recently used one is closed first.
//
// An entry is only a cache of a descriptor, keyed by file name: the track's
// index alone decides what is read where, and each record is checked against
// it (time point, size, generation, checksum). A file recycled meanwhile is
// recognised by the generation of its records (the reader reads the header
// again); one moved to the pool keeps its descriptor valid and is no longer
// named by the index; one removed from the track stays alive on disk until
// its entry is closed, at most `capacity` files per reader.
//
// Owns the readers. Not thread-safe: one host thread at a time, as the
// track reader that owns it.
class OpenChunkFiles {
  public:
    static constexpr size_t kDefaultCapacity = 4;

    explicit OpenChunkFiles(size_t capacity = kDefaultCapacity);
    OpenChunkFiles(const OpenChunkFiles&) = delete;
    OpenChunkFiles& operator=(const OpenChunkFiles&) = delete;

    // The reader of `fileName`, opened through the installed Env when it is
    // not kept; it becomes the most recently used. `opened` tells whether it
    // was opened by this call. Throws what opening throws, keeping nothing
    // new. The reference is valid until the next call.
    Moreld::File::DataChunkFileReader& Get(const std::string& fileName, bool& opened);
    // Closes the reader of `fileName`, if kept: after a failed read, so that
    // the next one starts from a fresh descriptor and header.
    void Forget(const std::string& fileName);

    size_t Size() const { return entries_.size(); }

  private:
    struct Entry {
        std::string fileName;
        std::unique_ptr<Moreld::File::DataChunkFileReader> reader;
    };

    // Most recently used first; a handful of entries, so a linear search.
    std::vector<Entry> entries_;
    const size_t capacity_;
};
