#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/Services/Service.h"
#include "Storage/Server/Factories/LoopRecordingFileFactory.h"
#include "bench/Host/StoreVsBaseline/Contender.h"
#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// loopstore as a host uses it: a pool of preallocated files under
// `directory`, the factory built on it, the service it constructs with the
// given cache budget, one track per track of the workload, one writer per
// ingest and one reader per OpenReader.
//
// Owns the factory, the service and every file under `directory` (removed
// by Close). Ingest runs on one thread per track, as the writers allow.
class StoreContender : public Contender {
  public:
    // `cacheMemoryBytes` goes to ExternalData (0: the library's defaults).
    StoreContender(std::string name, std::string directory, Workload workload,
                   unsigned long cacheMemoryBytes);
    ~StoreContender() override;

    std::string Name() const override { return name_; }
    void Prepare() override;
    void Ingest(int track, ChunkStream& stream) override;
    std::vector<std::string> Files() const override;
    std::vector<std::string> TrackFiles(int track) const override;
    Range TrackRange(int track) override;
    std::unique_ptr<TrackReading> OpenReader(int track) override;
    void Close() override;

  private:
    long CreateTrack();

    const std::string name_;
    const std::string directory_;
    const Workload workload_;
    const unsigned long cacheMemoryBytes_;
    std::unique_ptr<LoopRecordingFileFactory> factory_;
    std::unique_ptr<MoreldStorageApi::Service> service_;
    std::vector<long> trackIds_;
};

}  // namespace loopstore::bench
