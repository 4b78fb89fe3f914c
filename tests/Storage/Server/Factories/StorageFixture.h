#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Platform/Services/Service.h"
#include "Storage/Server/Factories/LoopRecordingFileFactory.h"
#include "tests/Support/TempDir.h"

namespace loopstore::test {

// A whole storage on disk, as a host sees it: tracks, databases and a pool
// of preallocated files, the factory and the service it constructs.
class Storage {
  public:
    static constexpr unsigned long kFileSize = 64 * 1024;

    // Creates the directories and `poolFiles` pool files, then starts the
    // store unless `start` is false.
    explicit Storage(int poolFiles, bool start = true);
    ~Storage();

    // "Now" of protection expiries and retention, and the interval of the
    // store's upkeep thread, for the next Start (the wall clock and one
    // minute otherwise).
    void SetUpkeep(std::function<Moreld::Time::TimePoint()> clock,
                   std::chrono::milliseconds interval) {
        clock_ = std::move(clock);
        upkeepInterval_ = interval;
    }
    // Builds the factory and its service (a start of the process).
    void Start();
    // Destroys them (a clean stop).
    void Stop();
    void Restart() {
        Stop();
        Start();
    }

    LoopRecordingFileFactory& Factory() { return *factory_; }
    MoreldStorageApi::ITrackStorage& Tracks() { return *service_->trackStorage; }
    MoreldStorageApi::ITrackWriterFactory& Writers() { return *service_->trackWriterFactory; }
    MoreldStorageApi::ITrackReaderFactory& Readers() { return *service_->trackReaderFactory; }
    MoreldStorageApi::ITrackRetention& Retention() { return *service_->trackRetention; }
    MoreldStorageApi::ITrackTimeline& Timeline() { return *service_->trackTimeline; }
    MoreldStorageApi::Service& Service() { return *service_; }
    // Creates track `id` of `files` pool files; the id the store gave it.
    long CreateTrack(long id, long files);

    std::string TracksDir() const { return dir_ / "tracks"; }
    std::string DbDir() const { return dir_ / "db"; }
    std::string PoolDir() const { return dir_ / "pool"; }
    int PoolFiles() const { return poolFiles_; }

    // Files on disk: in the pool directory, and in every track directory.
    int FilesInPool() const;
    int FilesInTracks() const;
    // The directory of the test, for its own files.
    const TempDir& Dir() const { return dir_; }

  private:
    TempDir dir_;
    int poolFiles_;
    std::function<Moreld::Time::TimePoint()> clock_;
    std::chrono::milliseconds upkeepInterval_ = std::chrono::minutes(1);
    std::unique_ptr<LoopRecordingFileFactory> factory_;
    std::unique_ptr<MoreldStorageApi::Service> service_;
};

}  // namespace loopstore::test
