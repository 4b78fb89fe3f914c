#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Plexa/Converter.h"

using Moreld::Plexa::Converter;
using Moreld::Time::TimePoint;

ChunkCacheTrackReader::ChunkCacheTrackReader(long trackId, LoopRecordingFileManager& manager,
                                             ThreadedChunkCache& cache)
    : trackId_(trackId),
      manager_(manager),
      cache_(cache),
      logger_(tav::mr::logging::LoggingManager::GetLogger("ChunkCacheTrackReader")),
      files_(std::make_shared<OpenChunkFiles>()) {
    MR_LOG(logger_, 30, "Reader " << this << " created on track " << trackId_);
}

ChunkCacheTrackReader::~ChunkCacheTrackReader() {
    MR_LOG(logger_, 30, "Reader " << this << " destroyed on track " << trackId_);
    if (monitoring_ != nullptr)
        monitoring_->Remove(workerId_);
}

void ChunkCacheTrackReader::SetMonitoring(Monitoring* monitoring, long workerId) {
    monitoring_ = monitoring;
    workerId_ = workerId;
}

const IFileSystemManager::IChunkProtection* ChunkCacheTrackReader::Find(Direction direction,
                                                                        const TimePoint& t) {
    TimePoint ignored;
    switch (direction) {
        case Direction::kAt:
            lastLocation_ = manager_.Lookup(t);
            break;
        case Direction::kNext:
            lastLocation_ = manager_.Next(t, ignored);
            break;
        case Direction::kPrevious:
            lastLocation_ = manager_.Previous(t, ignored);
            break;
    }
    return lastLocation_.get();
}

void ChunkCacheTrackReader::Get(Direction direction, const char* name, const Protocol::TimePoint& t,
                                const Protocol::KeyList& keys, Protocol::Chunk& out, bool& found) {
    const TimePoint tp = Converter::From(t);
    const IFileSystemManager::IChunkProtection* location = Find(direction, tp);
    if (location == nullptr) {
        found = false;
        MR_LOG(logger_, 20, name << tp << ": out of track " << trackId_);
        return;
    }
    found = true;
    std::set<std::string> wanted(keys.keys().begin(), keys.keys().end());
    GetChunk(location->GetChunk(), wanted, out, found);
}

void ChunkCacheTrackReader::GetChunk(const Protocol::TimePoint& t, const Protocol::KeyList& keys,
                                     Protocol::Chunk& out, bool& found) {
    Get(Direction::kAt, "GetChunk at ", t, keys, out, found);
}

void ChunkCacheTrackReader::GetNextChunk(const Protocol::TimePoint& t,
                                         const Protocol::KeyList& keys, Protocol::Chunk& out,
                                         bool& found) {
    Get(Direction::kNext, "GetNextChunk at ", t, keys, out, found);
}

void ChunkCacheTrackReader::GetPreviousChunk(const Protocol::TimePoint& t,
                                             const Protocol::KeyList& keys, Protocol::Chunk& out,
                                             bool& found) {
    Get(Direction::kPrevious, "GetPreviousChunk at ", t, keys, out, found);
}

void ChunkCacheTrackReader::GetChunk(const FileSystem::Chunk& chunk,
                                     const std::set<std::string>& keys, Protocol::Chunk& out,
                                     bool& found) {
    if (auto cached = cache_.GetChunk(chunk.timepoint)) {
        Converter::Fill(*cached, out, keys);
        return;
    }
    Moreld::Plexa::DataChunk data;
    // The record is read into the buffer `out` already owns: a caller that
    // reuses its message allocates (and zero-fills) no new payload.
    data.MutableData().swap(*out.mutable_data());
    ReadRecord(chunk, keys, data);
    if (monitoring_ != nullptr)
        monitoring_->Log(workerId_, data.GetSizeOnFile());
    Converter::Swap(data, out);
    found = true;
}

// Files only move by rename and their numbers are unique, so a kept
// descriptor reads the file the index names; after a failure it is let
// go all the same, and the next read starts from a fresh one.
void ChunkCacheTrackReader::ReadRecord(const FileSystem::Chunk& chunk,
                                       const std::set<std::string>& keys,
                                       Moreld::Plexa::DataChunk& data) {
    bool opened = false;
    const std::shared_ptr<Moreld::File::SharedChunkFile> file =
        files_->Get(chunk.location.file, trackDirectory_, opened);
    try {
        ReaderOf(file).GetChunk(data, chunk.location.offset, keys, chunk.timepoint,
                                chunk.location.size);
    } catch (...) {
        files_->Forget(*file);
        fileReader_.reset();
        fileReaderFile_ = nullptr;
        throw;
    }
}

Moreld::File::DataChunkFileReader& ChunkCacheTrackReader::ReaderOf(
    const std::shared_ptr<Moreld::File::SharedChunkFile>& file) {
    if (fileReaderFile_ != file.get()) {
        fileReader_ = std::make_unique<Moreld::File::DataChunkFileReader>(file);
        fileReaderFile_ = file.get();
    }
    return *fileReader_;
}

void ChunkCacheTrackReader::Step(Direction direction, const char* name,
                                 const Protocol::TimePoint& t, Protocol::TimePoint& out,
                                 bool& found) {
    const TimePoint tp = Converter::From(t);
    const IFileSystemManager::IChunkProtection* location = Find(direction, tp);
    if (location == nullptr) {
        found = false;
        MR_LOG(logger_, 20, name << tp << ": out of track " << trackId_);
        return;
    }
    const TimePoint n = location->GetChunk().timepoint;
    found = true;
    MR_LOG(logger_, 10, name << tp.ToString() << ": " << n.ToString());
    out = Converter::To(n);
}

void ChunkCacheTrackReader::NextTimePoint(const Protocol::TimePoint& t, Protocol::TimePoint& out,
                                          bool& found) {
    Step(Direction::kNext, "NextTimePoint at ", t, out, found);
}

void ChunkCacheTrackReader::PreviousTimePoint(const Protocol::TimePoint& t,
                                              Protocol::TimePoint& out, bool& found) {
    Step(Direction::kPrevious, "PreviousTimePoint at ", t, out, found);
}

void ChunkCacheTrackReader::Wait(const Protocol::TimePoint&, const int&, bool& result) {
    result = false;
}

void ChunkCacheTrackReader::AddTAVProperties(const FileSystem::Chunk& chunk,
                                             Moreld::Plexa::DataChunk& data) {
    data.SetProperty("tav-beginning-of-track",
                     std::to_string(manager_.GetBeginningOfTrack().ToNanoseconds()));
    data.SetProperty("tav-end-of-track", std::to_string(manager_.GetEndOfTrack().ToNanoseconds()));
    data.SetProperty("tav-accumulated-duration",
                     std::to_string(chunk.accumulatedDuration.ToNanoseconds()));
    data.SetProperty("tav-chunk-number", std::to_string(static_cast<long>(chunk.sequenceNumber)));
}
