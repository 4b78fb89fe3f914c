#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/Host/StoreVsBaseline/BaselineTrack.h"
#include "bench/Host/StoreVsBaseline/Contender.h"
#include "bench/Host/StoreVsBaseline/Workload.h"

namespace loopstore::bench {

// The baseline as a contender: one BaselineTrack per track of the workload,
// each in a directory of its own under `directory`, its files preallocated
// by Prepare. Owns the tracks and their files (removed by Close).
class BaselineStore : public Contender {
  public:
    BaselineStore(std::string directory, Workload workload);

    std::string Name() const override { return "baseline"; }
    void Prepare() override;
    void Ingest(int track, ChunkStream& stream) override;
    std::vector<std::string> Files() const override;
    std::vector<std::string> TrackFiles(int track) const override;
    Range TrackRange(int track) override { return tracks_.at(track)->Range(); }
    std::unique_ptr<TrackReading> OpenReader(int track) override;
    void Close() override;

  private:
    std::string TrackDirectory(int track) const;

    const std::string directory_;
    const Workload workload_;
    std::vector<std::unique_ptr<BaselineTrack>> tracks_;
};

}  // namespace loopstore::bench
