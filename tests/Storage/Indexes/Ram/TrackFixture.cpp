#include "tests/Storage/Indexes/Ram/TrackFixture.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Platform/File/DataChunkFileReader.h"

namespace loopstore::test {

TrackFixture::TrackFixture(long trackId, int fileCount, unsigned long fileSize)
    : trackId_(trackId) {
    std::filesystem::create_directories(Root() + "/" + std::to_string(trackId));
    std::filesystem::create_directories(DbDir());
    for (int i = 1; i <= fileCount; ++i) {
        ChunkFile file(i, 8, static_cast<long>(fileSize), trackId);
        CreatePreallocatedFile(file.GetAbsoluteFileName(Root(), false), fileSize);
        files_.push_back(file);
    }
}

std::unique_ptr<LoopRecordingFileManager> TrackFixture::OpenManager() {
    auto manager = std::make_unique<LoopRecordingFileManager>(trackId_);
    manager->OpenDatabase(DbDir());
    manager->SetChunkProtectionFactory(&factory_);
    return manager;
}

std::unique_ptr<LoopRecordingFileManager> TrackFixture::NewManagerWithFiles() {
    auto manager = OpenManager();
    manager->InsertFiles(files_);
    return manager;
}

Moreld::Plexa::DataChunk ChunkWriter::MakeChunk(Moreld::Time::TimePoint tp,
                                                Moreld::Time::TimePoint duration,
                                                unsigned long sizeOnFile) {
    Moreld::Plexa::DataChunk empty(tp, duration);
    const unsigned long overhead = empty.GetSizeOnFile();
    std::string payload(sizeOnFile - overhead, static_cast<char>('a' + tp.ToNanoseconds() % 26));
    return Moreld::Plexa::DataChunk(tp, duration, std::move(payload));
}

FileSystem::Chunk ChunkWriter::Write(Moreld::Time::TimePoint tp, Moreld::Time::TimePoint duration,
                                     unsigned long sizeOnFile) {
    Moreld::Plexa::DataChunk data = MakeChunk(tp, duration, sizeOnFile);
    FileSystem::Chunk record = manager_.Append(tp, duration, data.GetSizeOnFile());
    if (!current_.empty() && current_.back().location.file == record.location.file &&
        record.location.chunkIndex == 0) {
        Crash();  // the index recycled the current file: its chunks are gone
    }
    if (!current_.empty() && current_.back().location.file != record.location.file)
        Finish();
    if (!appender_) {
        appender_ = std::make_unique<Moreld::File::DataChunkFileAppender>(
            record.location.file.GetAbsoluteFileName(root_, false), record.location.chunkIndex != 0,
            static_cast<uint64_t>(record.location.file.Size()));
        // A continued file is saved whole, its earlier chunks with the new.
        if (record.location.chunkIndex != 0) {
            for (const Moreld::Time::TimePoint& t : appender_->GetTimePoints()) {
                if (auto handle = manager_.Lookup(t))
                    current_.push_back(handle->GetChunk());
            }
        }
    }
    EXPECT_TRUE(appender_->Append(data, record.location.offset)) << record;
    current_.push_back(record);
    return record;
}

void ChunkWriter::Finish() {
    if (!appender_)
        return;
    appender_->Sync();
    manager_.SaveAndRemove(current_);
    current_.clear();
    appender_.reset();
}

void ChunkWriter::Crash() {
    if (appender_)
        appender_->SetNoFlush(true);
    appender_.reset();
    current_.clear();
}

std::vector<ChunkFile> TrackFixture::AddFiles(int count, unsigned long fileSize) {
    std::vector<ChunkFile> added;
    for (int i = 0; i < count; ++i) {
        ChunkFile file(static_cast<long>(files_.size()) + 1, 8, static_cast<long>(fileSize),
                       trackId_);
        CreatePreallocatedFile(file.GetAbsoluteFileName(Root(), false), fileSize);
        files_.push_back(file);
        added.push_back(file);
    }
    return added;
}

void ExpectChunksReadable(const LoopRecordingFileManager& manager, const std::string& root) {
    for (const auto& [key, block] : manager.GetBlocks()) {
        for (const auto& [tp, chunk] : block.GetChunks()) {
            Moreld::File::DataChunkFileReader reader(
                chunk.location.file.GetAbsoluteFileName(root, false));
            Moreld::Plexa::DataChunk data;
            ASSERT_NO_THROW(
                reader.GetChunk(data, chunk.location.offset, {}, tp, chunk.location.size))
                << chunk;
            EXPECT_EQ(data, ChunkWriter::MakeChunk(tp, chunk.duration, chunk.location.size));
        }
    }
}

}  // namespace loopstore::test
