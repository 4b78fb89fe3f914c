#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Platform/Logging/LogCapture.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"

using loopstore::test::ChunkWriter;
using loopstore::test::Sec;
using loopstore::test::TrackFixture;
using tav::mr::logging::LogCapture;

namespace {

// A registry over a fixture's database and track directories.
struct Registry {
    explicit Registry(const TrackFixture& track) : managers(factory) {
        managers.SetDBTrackDirectory(track.DbDir());
        managers.SetTrackDirectory(track.Root());
    }

    NoChunkProtectionFactory factory;
    LoopRecordingFileManagers managers;
};

// Writes chunks of 300 bytes, one per second, into the track's 1000-byte
// files (three per file) and saves them, as a writer does.
void WriteChunks(LoopRecordingFileManager& manager, const TrackFixture& track, int count) {
    ChunkWriter writer(manager, track.Root());
    for (int i = 0; i < count; ++i)
        writer.Write(Sec(i), Sec(1), 300);
}

// Flips one byte of a file, as a torn write would.
void CorruptByte(const std::string& path, off_t offset) {
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << path;
    char c = 0;
    ASSERT_EQ(pread(fd, &c, 1, offset), 1);
    c = static_cast<char>(c ^ 0x5a);
    ASSERT_EQ(pwrite(fd, &c, 1, offset), 1);
    close(fd);
}

}  // namespace

TEST(LoopRecordingFileManagers, CreatesEachManagerOnceLoadedFromItsDatabase) {
    TrackFixture track(5, 2, 1000);
    WriteChunks(*track.NewManagerWithFiles(), track, 4);
    LogCapture registryLog("LoopRecordingFileManagers");
    LogCapture managerLog("LoopRecordingFileManager");
    Registry registry(track);

    EXPECT_TRUE(registry.managers.GetTrackIds().empty());
    EXPECT_FALSE(registry.managers.Exists(5));
    EXPECT_FALSE(registry.managers.Exists(5));  // asking does not create
    LoopRecordingFileManager* first = registry.managers.GetManager(5);
    LoopRecordingFileManager* second = registry.managers.GetManager(5);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_TRUE(registry.managers.Exists(5));
    EXPECT_EQ(registryLog.Count("T5: Creating the LoopRecordingFileManager..."), 1u);
    EXPECT_EQ(managerLog.Count("T5: 0 empty files and 4 chunks in 2 files"), 1u);
    EXPECT_FALSE(managerLog.Contains("Power failure detected"));  // stopped cleanly

    // Loaded and ready for readers: the protection factory is set.
    EXPECT_EQ(first->GetBlocks().size(), 2u);
    auto chunk = first->Lookup(Sec(3.5));
    ASSERT_TRUE(chunk);
    EXPECT_EQ(chunk->GetChunk().timepoint, Sec(3));
}

TEST(LoopRecordingFileManagers, ListsDestroysAndReloadsTracks) {
    TrackFixture track(3, 0, 1000);
    LogCapture log("LoopRecordingFileManagers");
    {
        Registry registry(track);
        LoopRecordingFileManagers& managers = registry.managers;
        managers.GetManager(12);
        managers.GetManager(3);
        managers.GetManager(7)->InsertFiles({ChunkFile(1, 8, 1000, 7)});
        EXPECT_EQ(managers.GetTrackIds(), (std::vector<long>{3, 7, 12}));

        managers.Destroy(7);
        EXPECT_EQ(log.LevelOf("T7: Destroying manager..."), 30);
        EXPECT_FALSE(managers.Exists(7));
        EXPECT_EQ(managers.GetTrackIds(), (std::vector<long>{3, 12}));
        managers.Destroy(99);  // unknown: ignored silently
        EXPECT_FALSE(log.Contains("T99"));

        // Destroy forgets the index in RAM only: the track comes back whole.
        LoopRecordingFileManager* again = managers.GetManager(7);
        EXPECT_EQ(log.Count("T7: Creating the LoopRecordingFileManager..."), 2u);
        EXPECT_EQ(again->GetEmptyFiles().size(), 1u);
        EXPECT_EQ(again->GetMaxTrackSize(), 1000u);
    }
    EXPECT_TRUE(log.HasExactly("Deleting the managers..."));
    EXPECT_TRUE(log.HasExactly("Deleting the managers...done"));
}

TEST(LoopRecordingFileManagers, AFailedLoadLeavesNoManager) {
    TrackFixture track(4, 0, 1000);
    NoChunkProtectionFactory factory;
    LoopRecordingFileManagers managers(factory);
    managers.SetDBTrackDirectory(track.DbDir() + "/missing");
    try {
        managers.GetManager(4);
        ADD_FAILURE() << "a track without a database directory was loaded";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Could not open DB on track 4");
    }
    EXPECT_FALSE(managers.Exists(4));
    EXPECT_TRUE(managers.GetTrackIds().empty());
}

TEST(LoopRecordingFileManagers, RepairsATrackThatWasBeingWrittenBeforeHandingItOut) {
    TrackFixture track(4, 3, 1000);
    {
        // The process stops while the track is active.
        auto manager = track.NewManagerWithFiles();
        manager->SetActiveMode(true);
        WriteChunks(*manager, track, 7);  // files 1 and 2 full, chunk 6 alone in file 3
    }
    // The newest file's only record did not fully reach the disk.
    CorruptByte(track.Files()[2].GetAbsoluteFileName(track.Root(), false), 16 + 100);

    LogCapture log("LoopRecordingFileManager");
    {
        Registry registry(track);
        LoopRecordingFileManager* m = registry.managers.GetManager(4);
        EXPECT_EQ(log.LevelOf("T4: Power failure detected"), 30);
        EXPECT_TRUE(
            log.Contains("T4: File " + track.Files()[2].ToString() + " is put back as empty file"));
        EXPECT_TRUE(log.Contains("matches the DB: end of track is in a valid state"));
        EXPECT_EQ(m->GetBlocks().size(), 2u);
        ASSERT_EQ(m->GetEmptyFiles().size(), 1u);
        EXPECT_EQ(m->GetEmptyFiles().front(), track.Files()[2]);
        EXPECT_EQ(m->GetEndOfTrack(), Sec(6));
        EXPECT_FALSE(m->IsActive());
        EXPECT_FALSE(m->Lookup(Sec(6)));
    }

    // The repair reached the database: the next start finds a clean track.
    log.Clear();
    Registry next(track);
    LoopRecordingFileManager* m = next.managers.GetManager(4);
    EXPECT_FALSE(log.Contains("Power failure detected"));
    EXPECT_EQ(m->GetBlocks().size(), 2u);
    EXPECT_EQ(m->GetEmptyFiles().size(), 1u);
}

TEST(LoopRecordingFileManagers, ConcurrentCallersForNewTracksShareOneManagerEach) {
    constexpr int kThreads = 6;
    TrackFixture track(42, 0, 1000);
    LogCapture log("LoopRecordingFileManagers");
    Registry registry(track);
    std::latch start(kThreads);
    std::vector<LoopRecordingFileManager*> got(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            got[i] = registry.managers.GetManager(42 + i % 2);
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    ASSERT_NE(got[0], nullptr);
    ASSERT_NE(got[1], nullptr);
    EXPECT_NE(got[0], got[1]);
    for (int i = 2; i < kThreads; ++i)
        EXPECT_EQ(got[i], got[i % 2]) << "thread " << i;
    EXPECT_EQ(log.Count("T42: Creating the LoopRecordingFileManager..."), 1u);
    EXPECT_EQ(log.Count("T43: Creating the LoopRecordingFileManager..."), 1u);
    EXPECT_EQ(registry.managers.GetTrackIds(), (std::vector<long>{42, 43}));
}
