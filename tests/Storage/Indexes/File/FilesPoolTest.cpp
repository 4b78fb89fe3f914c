#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <latch>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/File/ExtendedAttributes.h"
#include "Platform/Logging/LogCapture.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/File/ExtendedAttributeNames.h"
#include "Storage/Indexes/File/FilesPool.h"
#include "Storage/Indexes/SQLite/PoolDB.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using loopstore::test::CreatePreallocatedFile;
using loopstore::test::TempDir;
using tav::mr::logging::LogCapture;

constexpr long kNameSize = 8;

std::string ErrorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "<no exception>";
}

std::vector<long> Numbers(const std::vector<ChunkFile>& files) {
    std::vector<long> numbers;
    for (const ChunkFile& file : files) {
        numbers.push_back(file.GetFileNumber());
    }
    return numbers;
}

// A volume with a pool directory, a tracks root and a database directory.
class FilesPoolTest : public ::testing::Test {
  protected:
    FilesPoolTest() : poolDir_(dir_ / "pool"), tracksDir_(dir_ / "tracks"), dbDir_(dir_ / "db") {
        fs::create_directory(poolDir_);
        fs::create_directory(tracksDir_);
        fs::create_directory(dbDir_);
    }
    ~FilesPoolTest() override { Moreld::Tools::SyncPoint::Instance().ClearAll(); }

    void CreatePoolFiles(long first, long last, unsigned long size) {
        for (long number = first; number <= last; ++number) {
            CreatePreallocatedFile(FileIn(poolDir_, number), size);
        }
    }
    std::string FileIn(const std::string& directory, long number) const {
        return ChunkFile(number, kNameSize, 0, 0).GetAbsoluteFileName(directory, true);
    }
    std::string TrackDir(long track) const { return tracksDir_ + "/" + std::to_string(track); }
    void CreateTrackDirs(long first, long last) {
        for (long track = first; track <= last; ++track) {
            fs::create_directory(TrackDir(track));
        }
    }
    // A pool opened on a fresh database and linked, as at a first start.
    std::unique_ptr<FilesPool> NewLinkedPool() {
        auto pool = std::make_unique<FilesPool>();
        EXPECT_TRUE(pool->OpenDatabase(dbDir_).empty());
        pool->SetTrackDirectory(tracksDir_);
        pool->LinkToDirectory(poolDir_);
        return pool;
    }

    // Where each file number lies on disk: 0 for the pool, else the track.
    std::multimap<long, long> Locations() const {
        std::multimap<long, long> where;
        auto scan = [&](const std::string& directory, long place) {
            for (const auto& entry : fs::directory_iterator(directory)) {
                if (entry.is_regular_file()) {
                    where.emplace(std::stol(entry.path().filename().string()), place);
                }
            }
        };
        scan(poolDir_, 0);
        for (const auto& entry : fs::directory_iterator(tracksDir_)) {
            scan(entry.path().string(), std::stol(entry.path().filename().string()));
        }
        return where;
    }

    TempDir dir_;
    const std::string poolDir_;
    const std::string tracksDir_;
    const std::string dbDir_;
};

TEST_F(FilesPoolTest, LinksNumberedFilesOnlyAndPersistsThem) {
    CreatePoolFiles(1, 6, 1000000);
    CreatePreallocatedFile(poolDir_ + "/00000007.tmp", 1000000);  // extension
    CreatePreallocatedFile(poolDir_ + "/notes", 1000000);         // not a number
    CreatePreallocatedFile(poolDir_ + "/12abc", 1000000);         // not only a number
    CreatePreallocatedFile(poolDir_ + "/small.txt", 3);           // other size, skipped first
    fs::create_directory(poolDir_ + "/00000009");                 // not a regular file

    {
        LogCapture capture("FilesPool");
        auto pool = NewLinkedPool();
        EXPECT_TRUE(capture.HasExactly("Will scan directory " + poolDir_ + " ..."));
        EXPECT_TRUE(capture.HasExactly("In directory " + poolDir_ +
                                       ": Found 6 files of size 1000000 from file 00000001 to "
                                       "00000006. Remaining space: 6MB"));
        EXPECT_EQ(pool->GetRemainingSpace(), 6000000u);
        EXPECT_EQ(pool->GetNbMovedFiles(), 0u);
        EXPECT_TRUE(pool->IsStateCoherent());
        EXPECT_EQ(pool->GetDBFile(dbDir_), dbDir_ + "/pool.db");
    }

    // A restart reads everything back from the database alone.
    LogCapture capture("FilesPool");
    FilesPool reopened;
    EXPECT_TRUE(reopened.OpenDatabase(dbDir_).empty());
    EXPECT_EQ(reopened.GetRemainingSpace(), 6000000u);
    EXPECT_TRUE(capture.HasExactly("Remaining space: 6MB"));
    EXPECT_TRUE(capture.HasExactly("These files are all in the pool directory "));
    EXPECT_TRUE(capture.HasExactly("Found 6 files from DB " + dbDir_ +
                                   "/pool.db from 00000001 to 00000006"));
    CreateTrackDirs(2, 2);
    std::vector<ChunkFile> moved;
    EXPECT_EQ(reopened.MoveFiles(2, 1, moved, 0), 1000000u);
    EXPECT_TRUE(reopened.IsStateCoherent());
}

TEST_F(FilesPoolTest, PoolDirectoryNamedByANumberHoldsFreeFiles) {
    const std::string numbered = dir_ / "42";
    fs::create_directory(numbered);
    CreatePreallocatedFile(FileIn(numbered, 3), 100);
    FilesPool pool;
    pool.OpenDatabase(dbDir_);
    pool.SetTrackDirectory(tracksDir_);
    pool.LinkToDirectory(numbered);
    EXPECT_EQ(pool.GetNbMovedFiles(), 0u);
    EXPECT_EQ(pool.GetRemainingSpace(), 100u);
    EXPECT_TRUE(pool.GetMovedFiles(42).empty());
    EXPECT_TRUE(pool.IsStateCoherent());
}

TEST_F(FilesPoolTest, BadSetupIsRefusedAndChangesNothing) {
    FilesPool pool;
    EXPECT_EQ(ErrorOf([&] { pool.LinkToDirectory(poolDir_); }),
              "Cannot link to directory " + poolDir_ + ": open database first");
    EXPECT_EQ(ErrorOf([&] { pool.SetTrackDirectory(tracksDir_); }),
              "Cannot set track directories " + tracksDir_ + ": open database first");
    pool.OpenDatabase(dbDir_);

    std::vector<ChunkFile> moved;
    EXPECT_EQ(ErrorOf([&] { pool.MoveFiles(1, 100, moved, 0); }),
              "FilesPool: There is no file available to move on ");

    // Two sizes: nothing is linked, and a good directory can be linked after.
    const std::string mixed = dir_ / "mixed";
    fs::create_directory(mixed);
    CreatePreallocatedFile(FileIn(mixed, 1), 100);
    CreatePreallocatedFile(FileIn(mixed, 2), 200);
    const std::string error = ErrorOf([&] { pool.LinkToDirectory(mixed); });
    EXPECT_TRUE(error ==
                    "All files in " + mixed + " must have the same size. We found 100 and 200" ||
                error == "All files in " + mixed + " must have the same size. We found 200 and 100")
        << error;
    EXPECT_EQ(pool.GetRemainingSpace(), 0u);

    CreatePoolFiles(1, 3, 100);
    pool.LinkToDirectory(poolDir_);
    EXPECT_EQ(pool.GetRemainingSpace(), 300u);
    EXPECT_EQ(ErrorOf([&] { pool.LinkToDirectory(poolDir_); }),
              "Cannot link to directory " + poolDir_ +
                  ": pool is already linked to some files. Unlink all the files if you want to "
                  "relink.");
    EXPECT_EQ(pool.GetRemainingSpace(), 300u);

    CreateTrackDirs(1, 1);
    EXPECT_EQ(ErrorOf([&] { pool.MoveFiles(1, 100, moved, 0); }),
              "Tracks directories not set to MoveFiles");
    EXPECT_EQ(ErrorOf([&] { pool.SetTrackDirectory(dir_ / "missing"); }),
              "track directories " + (dir_ / "missing") +
                  " must be created before being set to the FilesPool");
    pool.SetTrackDirectory(tracksDir_);
    EXPECT_EQ(ErrorOf([&] { pool.SetTrackDirectory(dir_.Path()); }),
              "track directories already set to " + tracksDir_);

    // After a restart, the pool keeps its stored directories.
    FilesPool reopened;
    reopened.OpenDatabase(dbDir_);
    EXPECT_EQ(ErrorOf([&] { reopened.SetTrackDirectory(tracksDir_); }),
              "track directories already set to " + tracksDir_);
    EXPECT_EQ(reopened.MoveFiles(1, 100, moved, 0), 100u);
    EXPECT_TRUE(reopened.IsStateCoherent());
}

TEST_F(FilesPoolTest, BadMoveRequestsAreRefusedAndChangeNothing) {
    CreatePoolFiles(1, 10, 100);
    CreateTrackDirs(1, 2);
    auto pool = NewLinkedPool();
    std::vector<ChunkFile> moved;
    ASSERT_EQ(pool->MoveFiles(1, 300, moved, 0), 300u);
    const std::multimap<long, long> before = Locations();

    moved.assign(1, ChunkFile(99, 8, 100, 2));
    auto refused = [&](long track, unsigned long size) {
        return ErrorOf([&] { pool->MoveFiles(track, size, moved, 0); });
    };
    EXPECT_EQ(refused(2, 800),
              "Only 7 free files remaining with a size of 100 each. Impossible to move enough "
              "files to reach a size of 800 in FilesPool on " +
                  poolDir_ + ". You need 2 more files to do this move.");
    // A shortfall of exactly one file still asks for two.
    EXPECT_EQ(refused(2, 900),
              "Only 7 free files remaining with a size of 100 each. Impossible to move enough "
              "files to reach a size of 900 in FilesPool on " +
                  poolDir_ + ". You need 3 more files to do this move.");
    EXPECT_EQ(refused(3, 100), TrackDir(3) + " is not a directory in FilesPool on " + poolDir_);
    EXPECT_EQ(refused(0, 100), "Invalid track id 0 to MoveFiles in FilesPool on " + poolDir_);
    EXPECT_EQ(refused(-2, 100), "Invalid track id -2 to MoveFiles in FilesPool on " + poolDir_);

    EXPECT_EQ(moved.size(), 1u);  // the caller's vector is left alone
    EXPECT_EQ(pool->GetNbMovedFiles(), 3u);
    EXPECT_EQ(pool->GetRemainingSpace(), 700u);
    EXPECT_TRUE(pool->GetMovedFiles(2).empty());
    EXPECT_EQ(Locations(), before);

    // Exactly what is free still works.
    EXPECT_EQ(pool->MoveFiles(2, 700, moved, 0), 700u);
    EXPECT_EQ(pool->GetRemainingSpace(), 0u);
    EXPECT_TRUE(pool->IsStateCoherent());
}

TEST_F(FilesPoolTest, DestinationThatIsThePoolIsRefused) {
    // The pool lies where track 5's directory would be.
    const std::string trackFive = TrackDir(5);
    fs::create_directory(trackFive);
    CreatePreallocatedFile(FileIn(trackFive, 1), 100);
    FilesPool pool;
    pool.OpenDatabase(dbDir_);
    pool.SetTrackDirectory(tracksDir_);
    pool.LinkToDirectory(trackFive);
    std::vector<ChunkFile> moved;
    EXPECT_EQ(ErrorOf([&] { pool.MoveFiles(5, 100, moved, 0); }),
              "destination and pool directory cannot be the same: " + trackFive);
    EXPECT_EQ(pool.GetRemainingSpace(), 100u);
    EXPECT_TRUE(fs::exists(FileIn(trackFive, 1)));
}

TEST_F(FilesPoolTest, TakesFilesRoundRobin) {
    CreatePoolFiles(1, 6, 100);
    CreateTrackDirs(1, 4);
    auto pool = NewLinkedPool();
    std::vector<ChunkFile> first;
    std::vector<ChunkFile> second;
    std::vector<ChunkFile> third;
    EXPECT_EQ(pool->MoveFiles(1, 200, first, 0), 200u);
    EXPECT_EQ(Numbers(first), (std::vector<long>{1, 2}));
    EXPECT_EQ(pool->MoveFiles(2, 200, second, 0), 200u);
    EXPECT_EQ(Numbers(second), (std::vector<long>{3, 4}));
    EXPECT_EQ(second[0], ChunkFile(3, kNameSize, 100, 2));
    EXPECT_TRUE(fs::exists(FileIn(TrackDir(2), 3)));
    EXPECT_FALSE(fs::exists(FileIn(poolDir_, 3)));

    pool->RestoreFiles(second, 0);
    EXPECT_TRUE(pool->GetMovedFiles(2).empty());
    EXPECT_TRUE(fs::exists(FileIn(poolDir_, 3)));
    // Freed files 3 and 4 wait their turn: the cursor is at 5.
    EXPECT_EQ(pool->MoveFiles(3, 200, third, 0), 200u);
    EXPECT_EQ(Numbers(third), (std::vector<long>{5, 6}));
    EXPECT_EQ(Numbers(pool->GetMovedFiles(3)), (std::vector<long>{5, 6}));

    // The cursor wraps, skips lent files, and the last file may cross the
    // requested size.
    std::vector<ChunkFile> fourth;
    {
        LogCapture capture("FilesPool");
        EXPECT_EQ(pool->MoveFiles(4, 150, fourth, 0), 200u);
        EXPECT_TRUE(
            capture.HasExactly("Request to move files to reach a size of 150 to " + TrackDir(4)));
        EXPECT_TRUE(capture.HasExactly("2 files moved for a total size of 200"));
        EXPECT_TRUE(
            capture.HasExactly("Finished moving 2 files from " + poolDir_ + " to " + TrackDir(4)));
        EXPECT_EQ(capture.LevelOf("Moving file " + FileIn(poolDir_, 3)), 10);
    }
    EXPECT_EQ(Numbers(fourth), (std::vector<long>{3, 4}));
    EXPECT_EQ(pool->GetRemainingSpace(), 0u);
    EXPECT_EQ(pool->GetNbMovedFiles(), 6u);

    // Nothing requested, nothing taken.
    std::vector<ChunkFile> none(1);
    pool->RestoreFiles(fourth, 0);
    EXPECT_EQ(pool->MoveFiles(4, 0, none, 0), 0u);
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(pool->GetRemainingSpace(), 200u);
    EXPECT_TRUE(pool->IsStateCoherent());
}

TEST_F(FilesPoolTest, RestoreSkipsFilesItCannotTakeBack) {
    CreatePoolFiles(1, 4, 100);
    CreateTrackDirs(1, 2);
    auto pool = NewLinkedPool();
    std::vector<ChunkFile> moved;
    pool->MoveFiles(1, 200, moved, 0);

    LogCapture capture("FilesPool");
    pool->RestoreFiles({}, 0);
    EXPECT_EQ(capture.LevelOf("No files specified when RestoreFiles"), 20);

    const ChunkFile unknown(77, kNameSize, 100, 1);
    const ChunkFile freeFile(3, kNameSize, 100, 1);   // lent to nobody
    const ChunkFile elsewhere(2, kNameSize, 100, 2);  // lent to track 1
    pool->RestoreFiles({moved[0], unknown, freeFile, elsewhere}, 0);
    EXPECT_EQ(capture.LevelOf("File 77_8_100_1_0_1 is not found in the pool: we cannot restore it"),
              40);
    EXPECT_EQ(capture.Count("we cannot restore it"), 3u);
    EXPECT_TRUE(
        capture.HasExactly("Finished restoring 1 files from " + TrackDir(1) + " to " + poolDir_));
    EXPECT_EQ(pool->GetNbMovedFiles(), 1u);
    EXPECT_EQ(pool->GetRemainingSpace(), 300u);
    EXPECT_EQ(Numbers(pool->GetMovedFiles(1)), (std::vector<long>{2}));
    EXPECT_TRUE(pool->IsStateCoherent());

    // A file gone from its track is logged, and the pool still counts it
    // free: the state is then reported incoherent.
    fs::remove(FileIn(TrackDir(1), 2));
    capture.Clear();
    pool->RestoreFiles({moved[1]}, 0);
    EXPECT_EQ(capture.LevelOf("Couldn't restore file " + FileIn(TrackDir(1), 2) + " to " +
                              FileIn(poolDir_, 2) + ": "),
              40);
    EXPECT_EQ(pool->GetRemainingSpace(), 400u);
    EXPECT_FALSE(pool->IsStateCoherent());
    EXPECT_TRUE(capture.HasExactly("File 2_8_100_0_0_1 should exist in pool"));
}

// The state a power failure leaves: "pool.db" lists a move into track 3 and
// a return from track 4 as in flight, and each was cut half way on disk.
TEST_F(FilesPoolTest, OpeningFinishesInterruptedMovesBothWays) {
    CreatePoolFiles(1, 6, 100);
    CreateTrackDirs(3, 4);
    {
        auto pool = NewLinkedPool();
        std::vector<ChunkFile> moved;
        pool->MoveFiles(4, 200, moved, 0);  // files 1, 2
        pool->CloseMoveFilesTransaction();
    }
    {
        PoolDB db;
        ASSERT_TRUE(db.Open(dbDir_));
        db.SetRestoringStatus(4);
        db.ReturnToPool({ChunkFile(1, kNameSize, 100, 4), ChunkFile(2, kNameSize, 100, 4)});
        db.MoveToTrack({ChunkFile(5, kNameSize, 100, 0), ChunkFile(6, kNameSize, 100, 0)}, 3);
    }
    fs::rename(FileIn(TrackDir(4), 1), FileIn(poolDir_, 1));  // returned before the cut
    fs::rename(FileIn(poolDir_, 5), FileIn(TrackDir(3), 5));  // moved before the cut

    LogCapture capture("FilesPool");
    FilesPool pool;
    const std::vector<ChunkFile> interrupted = pool.OpenDatabase(dbDir_);
    ASSERT_EQ(interrupted.size(), 4u);
    for (const ChunkFile& file : interrupted) {
        const bool returned = file.GetFileNumber() <= 2;
        EXPECT_EQ(file.GetDirectoryNumber(), returned ? 0 : 3) << file;
        EXPECT_EQ(file.GetFifthValue(), returned ? 4 : 3) << file;
    }
    EXPECT_TRUE(capture.HasExactly("These files are spread through the track directories: \"3\""));
    EXPECT_TRUE(capture.HasExactly("Recovered restored file " + FileIn(TrackDir(4), 1) + " to " +
                                   FileIn(poolDir_, 1) + ": already in pool"));
    EXPECT_TRUE(capture.HasExactly("Recovered restored file " + FileIn(TrackDir(4), 2) + " to " +
                                   FileIn(poolDir_, 2) + ": done"));
    EXPECT_TRUE(capture.HasExactly("Recovered moved file " + FileIn(poolDir_, 5) + " to " +
                                   FileIn(TrackDir(3), 5) + ": already moved"));
    EXPECT_TRUE(capture.HasExactly("Recovered moved file " + FileIn(poolDir_, 6) + " to " +
                                   FileIn(TrackDir(3), 6) + ": done"));
    EXPECT_EQ(capture.LevelOf("Recovered moved file"), 10);

    EXPECT_TRUE(pool.IsStateCoherent());
    EXPECT_EQ(Numbers(pool.GetMovedFiles(3)), (std::vector<long>{5, 6}));
    EXPECT_EQ(pool.GetRemainingSpace(), 400u);
    bool found = false;
    EXPECT_EQ(Moreld::File::ExtendedAttributes::Read(FileIn(TrackDir(3), 6),
                                                     ExtendedAttributeNames::kEmptyFile, found),
              "1");
    EXPECT_TRUE(found);

    // The rows stay in flight until the operation is closed.
    pool.CloseMoveFilesTransaction();
    FilesPool again;
    EXPECT_TRUE(again.OpenDatabase(dbDir_).empty());
    EXPECT_TRUE(again.IsStateCoherent());
}

TEST_F(FilesPoolTest, StopFromAnotherThreadBetweenTwoFiles) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    CreatePoolFiles(1, 5, 100);
    CreateTrackDirs(1, 1);
    auto pool = NewLinkedPool();

    std::latch firstMoved(1);
    std::latch stopAsked(1);
    int calls = 0;
    Moreld::Tools::SyncPoint::Instance().SetCallback("FilesPool::MoveFiles:Moved", [&] {
        if (++calls == 1) {
            firstMoved.count_down();
            stopAsked.wait();
        }
    });
    std::thread stopper([&] {
        firstMoved.wait();
        pool->StopMovingFiles(2);
        stopAsked.count_down();
    });

    LogCapture capture("FilesPool");
    std::vector<ChunkFile> moved;
    EXPECT_EQ(pool->MoveFiles(1, 500, moved, 1), 500u);
    stopper.join();
    Moreld::Tools::SyncPoint::Instance().ClearAll();

    EXPECT_TRUE(pool->HasStoppedMovingFiles());
    EXPECT_TRUE(
        capture.HasExactly("Request to stop moving files while there were still 3 files to move"));
    EXPECT_EQ(moved.size(), 5u);
    EXPECT_EQ(pool->GetNbMovedFiles(), 5u);
    EXPECT_TRUE(fs::exists(FileIn(TrackDir(1), 2)));
    EXPECT_TRUE(fs::exists(FileIn(poolDir_, 3)));
    EXPECT_FALSE(pool->IsStateCoherent());
    EXPECT_TRUE(capture.HasExactly("File 3_8_100_1_0_1 should exist in track directory"));

    // A return stops the same way; a restart then finishes both operations.
    pool->StopMovingFiles(1);
    pool->RestoreFiles({moved[0], moved[1]}, 1);
    EXPECT_TRUE(pool->HasStoppedMovingFiles());
    EXPECT_TRUE(capture.HasExactly(
        "Request to stop moving files while there were still 1 files to restore"));
    pool.reset();

    FilesPool reopened;
    EXPECT_EQ(reopened.OpenDatabase(dbDir_).size(), 5u);
    EXPECT_TRUE(reopened.IsStateCoherent());
    EXPECT_EQ(Numbers(reopened.GetMovedFiles(1)), (std::vector<long>{3, 4, 5}));
    EXPECT_TRUE(fs::exists(FileIn(poolDir_, 2)));
    EXPECT_FALSE(reopened.HasStoppedMovingFiles());
}

// Random moves, returns, closes and restarts: each file stays in exactly one
// place, and the pool, its database and the disk agree on which.
TEST_F(FilesPoolTest, RandomMovesConserveFiles) {
    constexpr long kFiles = 40;
    constexpr unsigned long kSize = 100;
    constexpr long kTracks = 4;
    const char* seedText = std::getenv("LOOPSTORE_SEED");
    const unsigned seed =
        seedText != nullptr ? static_cast<unsigned>(std::stoul(seedText)) : std::random_device{}();
    std::cout << "LOOPSTORE_SEED=" << seed << std::endl;
    SCOPED_TRACE("LOOPSTORE_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);

    CreatePoolFiles(1, kFiles, kSize);
    CreateTrackDirs(1, kTracks);
    std::unique_ptr<FilesPool> pool = NewLinkedPool();

    auto check = [&](int step) {
        SCOPED_TRACE("step " + std::to_string(step));
        std::multimap<long, long> expected;
        for (long track = 1; track <= kTracks; ++track) {
            for (const ChunkFile& file : pool->GetMovedFiles(track)) {
                expected.emplace(file.GetFileNumber(), track);
            }
        }
        const uint64_t lent = expected.size();
        for (long number = 1; number <= kFiles; ++number) {
            if (expected.count(number) == 0) {
                expected.emplace(number, 0);
            }
        }
        ASSERT_EQ(Locations(), expected);
        ASSERT_EQ(pool->GetNbMovedFiles(), lent);
        ASSERT_EQ(pool->GetRemainingSpace(), (kFiles - lent) * kSize);
        ASSERT_TRUE(pool->IsStateCoherent());
    };

    for (int step = 0; step < 300; ++step) {
        const long track = std::uniform_int_distribution<long>(1, kTracks)(random);
        switch (std::uniform_int_distribution<int>(0, 9)(random)) {
            case 0:
            case 1:
            case 2:
            case 3: {
                const unsigned long freeBytes = pool->GetRemainingSpace();
                const unsigned long size =
                    std::uniform_int_distribution<unsigned long>(0, freeBytes)(random);
                std::vector<ChunkFile> moved;
                const unsigned long total = pool->MoveFiles(track, size, moved, 0);
                ASSERT_GE(total, size);
                ASSERT_LT(total, size + kSize);
                ASSERT_EQ(total, moved.size() * kSize);
                break;
            }
            case 4:
            case 5:
            case 6: {
                std::vector<ChunkFile> lent = pool->GetMovedFiles(track);
                std::shuffle(lent.begin(), lent.end(), random);
                lent.resize(std::uniform_int_distribution<size_t>(0, lent.size())(random));
                pool->RestoreFiles(lent, 0);
                break;
            }
            case 7:
            case 8:
                pool->CloseMoveFilesTransaction();
                break;
            default:
                // A restart: whatever is still marked in flight is already
                // where it belongs, so recovery must change nothing.
                pool.reset();
                pool = std::make_unique<FilesPool>();
                pool->OpenDatabase(dbDir_);
                break;
        }
        check(step);
        if (HasFatalFailure()) {
            return;
        }
    }
}

}  // namespace
