// Stored protections are reloaded at start-up whatever their track lost.

#include <gtest/gtest.h>

#include <memory>

#include "Platform/Logging/LogCapture.h"
#include "Platform/Plexa/Converter.h"
#include "Storage/Indexes/File/DirectoryHandler.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "Storage/Indexes/SQLite/TrackDB.h"
#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"

using loopstore::test::At;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
using loopstore::test::TrackIo;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {

// The track service over the directories of a TrackIo, started as the
// service factory starts it: every track loaded, then the databases.
class TrackService {
  public:
    explicit TrackService(const TrackIo& io)
        : directories_(io.Root()),
          managers_(protectionFactory_),
          storage_(directories_, managers_) {
        managers_.SetDBTrackDirectory(io.DbDir());
        managers_.SetTrackDirectory(io.Root());
        for (long id : directories_.GetIds())
            managers_.GetManager(id);
        storage_.OpenPropertiesDatabase(io.DbDir());
        storage_.OpenProtectionDatabase(io.DbDir());
    }

    LoopRecordingCommonTrackStorage& Storage() { return storage_; }
    LoopRecordingFileManager& Manager(long id) { return *managers_.GetManager(id); }

  private:
    DirectoryHandler directories_;
    NoChunkProtectionFactory protectionFactory_;
    LoopRecordingFileManagers managers_;
    LoopRecordingCommonTrackStorage storage_;
};

void Record(TrackIo& io, int64_t from, int count) {
    LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
    writer.SetTrackDirectory(io.Root());
    for (int i = 0; i < count; ++i) {
        Protocol::Chunk chunk = MakeChunkMessage(from + i * kSecond, kSecond, 3000);
        writer.Append(chunk);
    }
}

}  // namespace

TEST(ProtectionReload, AProtectionWhoseBlocksWereLostIsKeptAndTheStoreStarts) {
    TrackIo io(51, 4, 16 * 1024);
    Record(io, 0, 12);  // three files
    io.Close();
    long held = 0, lost = 0;
    {
        TrackService service(io);
        service.Storage().Protect(51, At(0), At(2 * kSecond), held);
        service.Storage().Protect(51, At(8 * kSecond), At(3 * kSecond), lost);
    }
    {
        // The blocks of the second protection are lost (as a crash could
        // lose a file's chunks): their files are empty again.
        TrackDB db;
        ASSERT_TRUE(db.Open(io.DbDir(), 51));
        std::vector<ChunkFile> files;
        for (const FileSystem::Chunk& chunk : db.GetAllChunks()) {
            if (chunk.timepoint >= TimePoint::FromNanoseconds(5 * kSecond))
                files.push_back(chunk.location.file);
        }
        ASSERT_FALSE(files.empty());
        db.Clear(files);
    }

    LogCapture log("LoopRecordingCommonTrackStorage");
    std::unique_ptr<TrackService> service;
    ASSERT_NO_THROW(service = std::make_unique<TrackService>(io));
    EXPECT_EQ(log.LevelOf("Protection " + std::to_string(lost) + " from"), 40);
    EXPECT_TRUE(log.Contains("holds no block; it is kept"));
    Protocol::ProtectionInfos infos;
    service->Storage().ListProtections(infos);
    ASSERT_EQ(infos.infos_size(), 2);
    EXPECT_EQ(service->Manager(51).GetProtections().size(), 2u);

    // Both can be lifted, and new ones get new ids.
    service->Storage().Unprotect(lost);
    EXPECT_TRUE(log.Contains("Unprotect protection id " + std::to_string(lost) + " on track 51"));
    long next = 0;
    service->Storage().Protect(51, At(0), At(kSecond), next);
    EXPECT_GT(next, lost);
    service->Storage().ListProtections(infos);
    EXPECT_EQ(infos.infos_size(), 2);

    // A track left empty by the loss starts too.
    service.reset();
    {
        TrackDB db;
        ASSERT_TRUE(db.Open(io.DbDir(), 51));
        std::vector<ChunkFile> files;
        for (const FileSystem::Chunk& chunk : db.GetAllChunks())
            files.push_back(chunk.location.file);
        db.Clear(files);
    }
    log.Clear();
    ASSERT_NO_THROW(service = std::make_unique<TrackService>(io));
    EXPECT_EQ(log.Count("holds no block; it is kept"), 2u);
}
