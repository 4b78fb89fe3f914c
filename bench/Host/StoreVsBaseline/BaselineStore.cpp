#include "bench/Host/StoreVsBaseline/BaselineStore.h"

#include <filesystem>

#include "Host/Cli/PoolInitializer.h"
#include "bench/Host/StoreVsBaseline/FileWalk.h"

namespace loopstore::bench {

namespace {

namespace fs = std::filesystem;

class BaselineReading : public TrackReading {
  public:
    explicit BaselineReading(const BaselineTrack& track) : track_(track) {}
    bool Get(int64_t timePoint, std::string& payload) override {
        return track_.Get(timePoint, payload);
    }
    bool Next(int64_t& timePoint, std::string& payload) override {
        return track_.Next(timePoint, payload);
    }

  private:
    const BaselineTrack& track_;
};

}  // namespace

BaselineStore::BaselineStore(std::string directory, Workload workload)
    : directory_(std::move(directory)), workload_(std::move(workload)) {}

std::string BaselineStore::TrackDirectory(int track) const {
    return (fs::path(directory_) / std::to_string(track + 1)).string();
}

void BaselineStore::Prepare() {
    for (int t = 0; t < workload_.tracks; ++t) {
        const std::string trackDir = TrackDirectory(t);
        // The same preallocated, numbered files as a loopstore pool.
        cli::PoolInitializer(trackDir, Workload::kFilesPerTrack, workload_.FileSize()).Run(nullptr);
        std::vector<std::string> paths = RegularFiles(trackDir);
        tracks_.push_back(std::make_unique<BaselineTrack>(std::move(paths), workload_.FileSize()));
    }
}

void BaselineStore::Ingest(int track, ChunkStream& stream) {
    BaselineTrack& target = *tracks_.at(track);
    while (!stream.Done()) {
        const Protocol::Chunk& chunk = stream.Next();
        target.Append(chunk.timepoint().nanoseconds(), chunk.duration().nanoseconds(),
                      chunk.data());
    }
    target.Sync();
}

std::vector<std::string> BaselineStore::Files() const {
    return RegularFiles(directory_);
}

std::vector<std::string> BaselineStore::TrackFiles(int track) const {
    return RegularFiles(TrackDirectory(track));
}

std::unique_ptr<TrackReading> BaselineStore::OpenReader(int track) {
    return std::make_unique<BaselineReading>(*tracks_.at(track));
}

void BaselineStore::Close() {
    tracks_.clear();
    fs::remove_all(directory_);
}

}  // namespace loopstore::bench
