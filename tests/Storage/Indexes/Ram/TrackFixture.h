#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/Plexa/DataChunk.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Chunk.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "tests/Support/TempDir.h"

namespace loopstore::test {

// A track on disk for index tests: a tracks root with the track's numbered
// directory of preallocated files, and a database directory.
class TrackFixture {
  public:
    TrackFixture(long trackId, int fileCount, unsigned long fileSize);

    std::string Root() const { return dir_ / "tracks"; }
    std::string DbDir() const { return dir_ / "db"; }
    const std::vector<ChunkFile>& Files() const { return files_; }
    long TrackId() const { return trackId_; }

    // A manager loaded from the track's database (files not inserted).
    std::unique_ptr<LoopRecordingFileManager> OpenManager();
    // A manager on a fresh database with every file inserted as empty.
    std::unique_ptr<LoopRecordingFileManager> NewManagerWithFiles();
    // Creates `count` more preallocated files of `fileSize` bytes in the
    // track's directory, numbered after the existing ones, and adds them to
    // Files(). They are given to no manager. Not thread-safe.
    std::vector<ChunkFile> AddFiles(int count, unsigned long fileSize);

  private:
    long trackId_;
    TempDir dir_;
    std::vector<ChunkFile> files_;
    NoChunkProtectionFactory factory_;
};

// Plays the track writer's part: places each chunk through the manager,
// writes its record where the index says, and saves a file's chunks in the
// database once the manager moves on to another file.
class ChunkWriter {
  public:
    ChunkWriter(LoopRecordingFileManager& manager, std::string root)
        : manager_(manager), root_(std::move(root)) {}
    ~ChunkWriter() { Finish(); }

    // Appends a chunk whose record takes `sizeOnFile` bytes (at least 52).
    FileSystem::Chunk Write(Moreld::Time::TimePoint tp, Moreld::Time::TimePoint duration,
                            unsigned long sizeOnFile);
    // Saves the current file's chunks, as a writer does when it is destroyed.
    void Finish();
    // Forgets the current file without saving it: what a crash leaves.
    void Crash();

    static Moreld::Plexa::DataChunk MakeChunk(Moreld::Time::TimePoint tp,
                                              Moreld::Time::TimePoint duration,
                                              unsigned long sizeOnFile);

  private:
    LoopRecordingFileManager& manager_;
    std::string root_;
    std::unique_ptr<Moreld::File::DataChunkFileAppender> appender_;
    std::vector<FileSystem::Chunk> current_;
};

// Every chunk the index names reads back from its file under `root` with its
// time point, size and the content ChunkWriter wrote.
void ExpectChunksReadable(const LoopRecordingFileManager& manager, const std::string& root);

inline Moreld::Time::TimePoint Sec(double s) {
    return Moreld::Time::TimePoint::FromNanoseconds(static_cast<int64_t>(s * 1e9));
}

}  // namespace loopstore::test
