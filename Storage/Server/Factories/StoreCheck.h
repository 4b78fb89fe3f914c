#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Chunk.h"
#include "Storage/Server/Factories/LoopRecordingFileFactory.h"

// A read-only check of a store that no process has open: the files on disk
// against "pool.db", the track directories against the track databases, the
// track databases against each other and against "pool.db", and every listed
// chunk against its record in its file. Each problem comes with what a
// start-up repair would do about it.
//
// Changes no byte of the store: the databases are read from copies
// (DatabaseSnapshot), the directories only listed, the chunk files only
// read. Not thread-safe; the store must not be served while it runs.
class StoreCheck {
  public:
    struct Problem {
        std::string what;
        std::string repair;  // what a start-up repair does about it
        bool operator==(const Problem& other) const {
            return what == other.what && repair == other.repair;
        }
    };
    struct Report {
        uint64_t tracks = 0;
        uint64_t chunks = 0;
        uint64_t bytes = 0;
        std::vector<Problem> problems;
        bool Clean() const { return problems.empty(); }
    };

    explicit StoreCheck(const LoopRecordingFileFactory::FactoryParameters& directories);

    // Throws std::runtime_error when the store cannot be checked at all (no
    // "pool.db", or it cannot be read).
    Report Run();

  private:
    // Where a numbered file was found: 0 for the pool directory, else the
    // track whose directory holds it.
    struct Place {
        long directory;
        std::string path;
        uint64_t size;
    };
    // What one track database lists.
    struct TrackListing {
        std::vector<FileSystem::Chunk> chunks;
        std::vector<ChunkFile> emptyFiles;
    };

    void ScanDisk();
    void ScanDirectory(const std::string& directory, long owner);
    void ReadPool(const std::string& snapshot);
    void ReadTracks(const std::string& snapshot, const std::set<long>& databases);
    void CheckPoolFiles();
    void CheckPoolFile(const ChunkFile& file);
    void CheckUnknownFiles();
    void CheckTrackListings();
    void CheckTrackListing(long track, const TrackListing& listing, std::map<long, long>& listedBy);
    void CheckChunks(long track, const std::vector<FileSystem::Chunk>& chunks);

    std::string Where(long directory) const;
    void Add(std::string what, std::string repair);

    const LoopRecordingFileFactory::FactoryParameters directories_;
    Report report_;
    std::map<long, std::vector<Place>> onDisk_;  // by file number
    std::set<long> trackDirectories_;
    std::map<long, ChunkFile> poolFiles_;  // by file number; fifth value: status
    std::map<long, TrackListing> listings_;
};
