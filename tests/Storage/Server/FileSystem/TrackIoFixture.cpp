#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"

#include <filesystem>

namespace loopstore::test {

TrackIo::TrackIo(long trackId, int fileCount, unsigned long fileSize) : trackId_(trackId) {
    std::filesystem::create_directories(Root() + "/" + std::to_string(trackId));
    std::filesystem::create_directories(DbDir());
    std::vector<ChunkFile> files;
    for (int i = 1; i <= fileCount; ++i) {
        ChunkFile file(i, 8, static_cast<long>(fileSize), trackId);
        CreatePreallocatedFile(file.GetAbsoluteFileName(Root(), false), fileSize);
        files.push_back(file);
    }
    Restart();
    Manager().InsertFiles(files);
}

void TrackIo::Close() {
    caches_.reset();
    managers_.reset();
}

void TrackIo::Restart() {
    Close();
    managers_ = std::make_unique<LoopRecordingFileManagers>(factory_);
    managers_->SetDBTrackDirectory(DbDir());
    managers_->SetTrackDirectory(Root());
    managers_->GetManager(trackId_);
    caches_ = std::make_unique<ChunkCacheManager>();
}

std::string PayloadFor(int64_t tpNs, size_t payloadSize) {
    std::string payload(payloadSize, '\0');
    uint64_t x = static_cast<uint64_t>(tpNs) * 6364136223846793005ULL + 1442695040888963407ULL;
    for (size_t i = 0; i < payloadSize; ++i) {
        x = x * 6364136223846793005ULL + 1442695040888963407ULL;
        payload[i] = static_cast<char>(x >> 56);
    }
    return payload;
}

Protocol::Chunk MakeChunkMessage(int64_t tpNs, int64_t durationNs, size_t payloadSize) {
    Protocol::Chunk chunk;
    chunk.mutable_timepoint()->set_nanoseconds(tpNs);
    chunk.mutable_duration()->set_nanoseconds(durationNs);
    chunk.set_data(PayloadFor(tpNs, payloadSize));
    Protocol::Property* p = chunk.add_properties();
    p->set_key("camera");
    p->set_value("cam-" + std::to_string(tpNs % 7));
    return chunk;
}

}  // namespace loopstore::test
