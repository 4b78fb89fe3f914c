#include "bench/Host/StoreVsBaseline/StoreContender.h"

#include <filesystem>
#include <stdexcept>

#include "Host/Cli/DataLayout.h"
#include "bench/Host/StoreVsBaseline/FileWalk.h"

namespace loopstore::bench {

namespace {

// The host's way to let go of what a factory created for it.
template <typename T>
struct Destroy {
    void operator()(T* object) const {
        object->DestroyOnServer();
        delete object;
    }
};
template <typename T>
using HostOwned = std::unique_ptr<T, Destroy<T>>;

class StoreReading : public TrackReading {
  public:
    explicit StoreReading(MoreldStorageApi::ITrackReader* reader) : reader_(reader) {}

    bool Get(int64_t timePoint, std::string& payload) override {
        at_.set_nanoseconds(timePoint);
        bool found = false;
        reader_->GetChunk(at_, keys_, chunk_, found);
        return Take(found, payload);
    }

    bool Next(int64_t& timePoint, std::string& payload) override {
        at_.set_nanoseconds(timePoint);
        bool found = false;
        reader_->GetNextChunk(at_, keys_, chunk_, found);
        if (found)
            timePoint = chunk_.timepoint().nanoseconds();
        return Take(found, payload);
    }

  private:
    // Swapped, not copied: the message keeps the caller's old buffer.
    bool Take(bool found, std::string& payload) {
        if (found)
            payload.swap(*chunk_.mutable_data());
        return found;
    }

    HostOwned<MoreldStorageApi::ITrackReader> reader_;
    Protocol::TimePoint at_;
    const Protocol::KeyList keys_;
    Protocol::Chunk chunk_;
};

}  // namespace

StoreContender::StoreContender(std::string name, std::string directory, Workload workload,
                               unsigned long cacheMemoryBytes)
    : name_(std::move(name)),
      directory_(std::move(directory)),
      workload_(std::move(workload)),
      cacheMemoryBytes_(cacheMemoryBytes) {}

StoreContender::~StoreContender() {
    service_.reset();
    factory_.reset();
}

void StoreContender::Prepare() {
    const cli::DataLayout layout = cli::DataLayout::Under(directory_);
    layout.Prepare(Workload::kFilesPerTrack * workload_.tracks, workload_.FileSize());
    factory_ = std::make_unique<LoopRecordingFileFactory>(
        LoopRecordingFileFactory::FactoryParameters{layout.tracks, layout.db, layout.pool});
    Moreld::Services::ExternalData data;
    data.serviceName = "loopstore";
    data.clientDescription = "store-vs-baseline benchmark";
    data.cacheMemoryBytes = cacheMemoryBytes_;
    service_.reset(factory_->Construct(data));
    for (int t = 0; t < workload_.tracks; ++t)
        trackIds_.push_back(CreateTrack());
}

long StoreContender::CreateTrack() {
    Protocol::TrackParameters request;
    Protocol::TrackParameters answer;
    request.set_id(0);
    request.set_size(static_cast<int64_t>(Workload::kFilesPerTrack * workload_.FileSize()));
    if (service_->trackStorage->CreateTrack(request, answer) != 1)
        throw std::runtime_error("the store refused a track of " + std::to_string(request.size()) +
                                 " bytes");
    return answer.id();
}

void StoreContender::Ingest(int track, ChunkStream& stream) {
    const long id = trackIds_.at(track);
    HostOwned<MoreldStorageApi::ITrackWriter> writer(service_->trackWriterFactory->Create(id));
    while (!stream.Done())
        writer->Append(stream.Next());
    long stored = 0;
    writer->WaitUntilStored(stored);
    if (static_cast<uint64_t>(stored) != stream.Count())
        throw std::runtime_error("track " + std::to_string(id) + ": " + std::to_string(stored) +
                                 " chunks stored of " + std::to_string(stream.Count()));
    // Destroying the writer drains it and saves its last file: part of ingest.
    writer.reset();
}

std::vector<std::string> StoreContender::Files() const {
    return RegularFiles(directory_);
}

std::vector<std::string> StoreContender::TrackFiles(int track) const {
    // A track's files live in the directory named by its id.
    const std::string tracks = cli::DataLayout::Under(directory_).tracks;
    return RegularFiles(
        (std::filesystem::path(tracks) / std::to_string(trackIds_.at(track))).string());
}

Contender::Range StoreContender::TrackRange(int track) {
    Protocol::TimePoint begin;
    Protocol::TimePoint end;
    const long id = trackIds_.at(track);
    service_->trackStorage->GetBeginningOfTrack(id, begin);
    service_->trackStorage->GetEndOfTrack(id, end);
    return {begin.nanoseconds(), end.nanoseconds()};
}

std::unique_ptr<TrackReading> StoreContender::OpenReader(int track) {
    return std::make_unique<StoreReading>(
        service_->trackReaderFactory->Create(trackIds_.at(track)));
}

void StoreContender::Close() {
    service_.reset();
    factory_.reset();
    trackIds_.clear();
    std::filesystem::remove_all(directory_);
}

}  // namespace loopstore::bench
