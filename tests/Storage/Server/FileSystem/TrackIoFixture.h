#pragma once

#include <memory>
#include <string>

#include "Platform/Plexa/DataChunk.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "tests/Support/ProtocolBuilders.h"
#include "tests/Support/TempDir.h"
#include "tests/Support/TestTime.h"

namespace loopstore::test {

// One track on disk (tracks root with its numbered directory of
// preallocated files, and a database directory) with the registries a
// writer and a reader stand on. Destroying and rebuilding the registries
// (Restart) is what a process restart does.
class TrackIo {
  public:
    TrackIo(long trackId, int fileCount, unsigned long fileSize);

    std::string Root() const { return dir_ / "tracks"; }
    std::string DbDir() const { return dir_ / "db"; }
    long TrackId() const { return trackId_; }

    LoopRecordingFileManager& Manager() { return *managers_->GetManager(trackId_); }
    ThreadedChunkCache& Cache() { return *caches_->GetChunkCache(trackId_); }
    CacheBudget& Budget() { return caches_->GetBudget(); }
    // Drops the registries and loads the track again from its database.
    void Restart();
    // Drops the registries (closing the track's database), as a process exit does.
    void Close();

  private:
    long trackId_;
    TempDir dir_;
    NoChunkProtectionFactory factory_;
    std::unique_ptr<LoopRecordingFileManagers> managers_;
    std::unique_ptr<ChunkCacheManager> caches_;
};

// The chunk a test writes at `tp`: its payload and properties are a
// function of the time point, so any reader can check what it gets.
Protocol::Chunk MakeChunkMessage(int64_t tpNs, int64_t durationNs, size_t payloadSize);
std::string PayloadFor(int64_t tpNs, size_t payloadSize);

}  // namespace loopstore::test
