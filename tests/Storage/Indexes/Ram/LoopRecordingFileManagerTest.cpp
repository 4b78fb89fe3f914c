#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "Platform/Logging/LogCapture.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"
#include "tests/Support/ThrownText.h"

using loopstore::test::ChunkWriter;
using loopstore::test::Sec;
using loopstore::test::ThrownText;
using loopstore::test::TrackFixture;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {}  // namespace

TEST(LoopRecordingFileManager, PlacesChunksInBlocksAndRecyclesOldestUnprotectedFirst) {
    TrackFixture track(3, 2, 1000);
    auto m = track.OpenManager();
    LogCapture log("LoopRecordingFileManager");

    EXPECT_EQ(ThrownText([&] { m->Append(Sec(0), Sec(1), 100); }),
              "You must call GrowTrack to store chunks at " + Sec(0).ToString() + " for track 3");
    EXPECT_TRUE(log.Contains("T3: no block and no empty files to store chunk at"));
    m->InsertFiles(track.Files());
    EXPECT_EQ(m->GetMaxTrackSize(), 2000u);

    // A file of 1000 bytes takes 500 + 484 bytes after its 16-byte header.
    FileSystem::Chunk a = m->Append(Sec(0), Sec(1), 500);
    FileSystem::Chunk b = m->Append(Sec(1), Sec(1), 484);
    EXPECT_EQ(a.location.offset, 16u);
    EXPECT_EQ(b.location.offset, 516u);
    EXPECT_EQ(b.location.chunkIndex, 1u);
    EXPECT_EQ(a.location.file, b.location.file);
    EXPECT_EQ(b.sequenceNumber, 1u);
    EXPECT_EQ(b.accumulatedDuration, Sec(1));

    // Starting before the end of the track is refused; exactly at it is fine.
    EXPECT_NE(ThrownText([&] {
                  m->Append(Sec(2) - TimePoint::FromNanoseconds(1), Sec(1), 1);
              }).find("T3: Chunk's timepoint "),
              std::string::npos);
    FileSystem::Chunk c = m->Append(Sec(2), Sec(1), 1);  // opens block 2
    EXPECT_NE(c.location.file, a.location.file);
    EXPECT_EQ(c.location.offset, 16u);
    EXPECT_EQ(m->GetTrackSize(), 985u);
    EXPECT_EQ(m->GetSizeOnRam(), 2 * 8 + 48 + 2 * 112 + 48 + 112u);

    // No empty file left: the oldest block is recycled, unless protected.
    m->Append(Sec(3), Sec(1), 983);  // fills block 2
    m->Protect(7, Sec(0), Sec(4));   // both blocks
    EXPECT_EQ(ThrownText([&] { m->Append(Sec(4), Sec(1), 10); }).substr(0, 42),
              "T3: No more recyclable file available to s");
    EXPECT_FALSE(log.Contains("is now in LoopRecording"));
    EXPECT_EQ(m->Unprotect(7), 2u);
    FileSystem::Chunk d = m->Append(Sec(4), Sec(1), 10);
    EXPECT_EQ(d.location.file, a.location.file);
    EXPECT_TRUE(log.Contains("T3: is now in LoopRecording at "));
    EXPECT_TRUE(log.Contains("T3: Remove block at "));
    EXPECT_EQ(m->GetTrackSize(), 1 + 983 + 10u);
    EXPECT_EQ(m->GetBeginningOfTrack(), Sec(2));
    EXPECT_EQ(m->Lookup(Sec(0.5)), nullptr);  // recycled away
    EXPECT_EQ(m->GetBlocks().size(), 2u);
    EXPECT_TRUE(m->CheckInvariant());

    // A chunk larger than a file is refused before anything is consumed.
    EXPECT_EQ(ThrownText([&] { m->Append(Sec(10), Sec(1), 1001); }).substr(0, 13), "Current file ");
    EXPECT_EQ(m->GetBlocks().size(), 2u);
}

TEST(LoopRecordingFileManager, FirstChunkLimits) {
    TrackFixture track(1, 1, 1000);
    auto m = track.NewManagerWithFiles();
    std::string text = ThrownText([&] { m->Append(Sec(0), Sec(1), 1001); });
    EXPECT_EQ(text.substr(0, 11), "Empty file ");
    EXPECT_NE(text.find(" on track1. The pool must contains bigger files to store this chunk"),
              std::string::npos);
    LogCapture log("LoopRecordingFileManager");
    EXPECT_EQ(ThrownText([&] { m->Append(Sec(0), Sec(1), 985); }),
              "Could not append chunk at " + Sec(0).ToString());
    EXPECT_TRUE(log.Contains(" in first block. Chunk is "));
    TrackFixture other(2, 1, 1000);
    auto n = other.NewManagerWithFiles();
    EXPECT_EQ(n->Append(Sec(0), Sec(1), 984).location.size, 984u);
}

TEST(LoopRecordingFileManager, LookupNextPreviousAndCountsAcrossBlocksAndGaps) {
    TrackFixture track(1, 4, 1000);
    auto m = track.NewManagerWithFiles();
    m->Append(Sec(0), Sec(1), 400);
    m->Append(Sec(1), Sec(1), 400);
    m->Append(Sec(2), Sec(8), 400);   // block 2: [2, 10)
    m->Append(Sec(20), Sec(1), 900);  // block 3 after a gap
    TimePoint found;
    auto at = [&](auto handle) { return handle ? handle->GetChunk().timepoint : Sec(-99); };

    EXPECT_EQ(at(m->Lookup(Sec(1))), Sec(1));
    EXPECT_EQ(at(m->Lookup(Sec(15))), Sec(-99));
    EXPECT_EQ(at(m->Lookup(Sec(21))), Sec(-99));  // the end is not in the track
    EXPECT_EQ(at(m->Next(Sec(0.5), found)), Sec(1));
    EXPECT_EQ(found, Sec(1));
    EXPECT_EQ(at(m->Next(Sec(-5), found)), Sec(0));
    EXPECT_EQ(at(m->Next(Sec(1), found)), Sec(2));  // crosses to the next block
    EXPECT_EQ(at(m->Next(Sec(15), found)), Sec(20));
    EXPECT_EQ(at(m->Next(Sec(20), found)), Sec(-99));
    EXPECT_EQ(at(m->Previous(Sec(1.5), found)), Sec(0));
    EXPECT_EQ(at(m->Previous(Sec(0.5), found)), Sec(-99));
    EXPECT_EQ(at(m->Previous(Sec(15), found)), Sec(2));
    EXPECT_EQ(at(m->Previous(Sec(2.5), found)), Sec(1));  // previous block's last chunk
    EXPECT_EQ(at(m->Previous(Sec(99), found)), Sec(20));

    EXPECT_EQ(m->GetNumberOfChunks(Sec(0), Sec(2)), 2u);
    EXPECT_EQ(m->GetNumberOfChunks(Sec(0), Sec(1)), 1u);
    EXPECT_EQ(m->GetNumberOfChunks(Sec(0.5), Sec(1.5)), 2u);
    EXPECT_EQ(m->GetNumberOfChunks(Sec(1), Sec(1)), 0u);
    EXPECT_EQ(m->GetNumberOfChunks(Sec(-10), Sec(100)), 4u);
    EXPECT_EQ(m->GetAccumulatedDuration(Sec(0), Sec(15)), Sec(10));
    EXPECT_EQ(m->GetAccumulatedDuration(Sec(0.5), Sec(1.5)), Sec(2));

    auto first = m->GetFirstChunkLocation(found);
    EXPECT_EQ(found, Sec(0));
    EXPECT_EQ(at(m->GetLastChunkLocation(found)), Sec(20));
    EXPECT_TRUE(m->HasFile(track.Files()[3]));  // still empty, recorded in the database
    EXPECT_TRUE(m->HasFile(first->GetChunk().location.file));
    EXPECT_FALSE(m->HasFile(ChunkFile(99, 8, 1000, 1)));

    LoopRecordingFileManager bare(5);
    EXPECT_EQ(ThrownText([&] { bare.Lookup(Sec(0)); }),
              "ChunkProtection factory not set in LoopRecordingFileManager on track 5");
}

TEST(LoopRecordingFileManager, ProtectionsKeepBlocksOutOfTheLoop) {
    TrackFixture track(1, 5, 1000);
    auto m = track.NewManagerWithFiles();
    EXPECT_EQ(ThrownText([&] { m->Protect(1, Sec(0), Sec(1)); }),
              "Nothing to protect on track 1: track is empty");
    for (int i = 0; i < 5; ++i)
        m->Append(Sec(i), Sec(1), 900);  // one block per file
    EXPECT_EQ(ThrownText([&] { m->Protect(0, Sec(0), Sec(1)); }).substr(0, 31),
              "Protection id 0 is not accepted");
    EXPECT_NE(ThrownText([&] { m->Protect(1, Sec(1), Sec(1)); }).find("must be > timepoint IN"),
              std::string::npos);

    m->Protect(1, Sec(1.5), Sec(3.5));  // blocks 2, 3, 4
    m->Protect(2, Sec(3), Sec(4.5));    // blocks 4 and 5 (4 doubly protected)
    EXPECT_NE(ThrownText([&] { m->Protect(2, Sec(0), Sec(1)); }).find("already used t protect"),
              std::string::npos);
    EXPECT_EQ(m->GetRecyclableKeys(), (std::set<TimePoint>{Sec(0)}));
    EXPECT_EQ(m->GetBeginningOfTrack(), Sec(0));

    // Only block 1's file loops while the others are held.
    EXPECT_EQ(m->Append(Sec(5), Sec(1), 900).location.file, track.Files()[0]);
    EXPECT_EQ(m->Append(Sec(6), Sec(1), 900).location.file, track.Files()[0]);

    EXPECT_EQ(m->Unprotect(2), 1u);  // block 5 freed, block 4 still held by protection 1
    EXPECT_EQ(m->GetRecyclableKeys(), (std::set<TimePoint>{Sec(4), Sec(6)}));
    EXPECT_EQ(m->Unprotect(1), 3u);
    EXPECT_EQ(m->GetBeginningOfTrack(), Sec(1));
    EXPECT_EQ(ThrownText([&] { m->Unprotect(1); }), "No protection handle 1 on track 1");
    // The oldest block is next in the loop again.
    EXPECT_EQ(m->Append(Sec(7), Sec(1), 900).location.file, track.Files()[1]);
}

TEST(LoopRecordingFileManager, AProtectionHoldsTheBlocksRecordedLaterInItsRange) {
    TrackFixture track(1, 6, 1000);
    auto m = track.NewManagerWithFiles();
    // Two chunks a file; block 1 (0 s .. 2 s) is being filled.
    m->Append(Sec(0), Sec(1), 450);
    m->Append(Sec(1), Sec(1), 450);
    m->Protect(1, Sec(0.5), Sec(6));  // ends in the future
    // Block 1 (2 s .. 4 s), block 2 (4 s .. 6 s) and block 3, opening at the
    // end of the range, are held as they open; block 4 (8 s) is not.
    for (int i = 2; i < 10; ++i)
        m->Append(Sec(i), Sec(1), 450);
    const std::set<TimePoint> held{Sec(0), Sec(2), Sec(4), Sec(6)};
    EXPECT_EQ(m->GetProtections().at(1), held);
    EXPECT_EQ(m->GetRecyclableKeys(), (std::set<TimePoint>{Sec(8)}));

    // A range from inside the block being filled holds it, and the block
    // that opens at the range's end.
    m->Append(Sec(10), Sec(1), 450);  // opens block 5 on the last empty file
    m->Protect(2, Sec(10.5), Sec(12));
    m->Append(Sec(11), Sec(1), 450);
    m->Append(Sec(12), Sec(1), 450);  // block 4 is recycled for block 6
    EXPECT_EQ(m->GetProtections().at(2), (std::set<TimePoint>{Sec(10), Sec(12)}));
    EXPECT_EQ(m->GetRecyclableKeys(), std::set<TimePoint>{});

    // Every file is held: the writer gets the usual refusal, nothing is lost.
    m->Append(Sec(13), Sec(1), 450);
    EXPECT_NE(ThrownText([&] {
                  m->Append(Sec(14), Sec(1), 450);
              }).find("No more recyclable file available to store chunk at"),
              std::string::npos);
    EXPECT_EQ(m->GetBlocks().size(), 6u);

    // Unprotect lifts the blocks added later too, and the range no longer
    // holds what opens in it.
    EXPECT_EQ(m->Unprotect(1), 4u);
    EXPECT_EQ(m->Append(Sec(14), Sec(1), 450).location.file, track.Files()[0]);
    EXPECT_EQ(m->Unprotect(2), 2u);

    // A stored range reloaded on a track that lost its blocks still holds
    // what is recorded in it afterwards.
    m->Clear();
    EXPECT_EQ(m->RestoreProtection(3, Sec(20), Sec(30)), 0u);
    m->Append(Sec(25), Sec(1), 450);
    EXPECT_EQ(m->GetProtections().at(3), std::set<TimePoint>{Sec(25)});
    EXPECT_EQ(m->GetBeginningOfTrack(), TimePoint());
}

TEST(LoopRecordingFileManager, RemoveFilesGivesUnprotectedFilesBackFlaggedByContent) {
    TrackFixture track(1, 5, 1000);
    auto m = track.NewManagerWithFiles();
    ChunkWriter writer(*m, track.Root());
    for (int i = 0; i < 3; ++i)
        writer.Write(Sec(i), Sec(1), 900);
    writer.Finish();
    m->Protect(4, Sec(1), Sec(1.5));  // block 2

    // Empty files first, then the oldest unprotected blocks; the last file
    // taken may overshoot the request.
    std::vector<ChunkFile> back = m->RemoveFiles(2500);
    ASSERT_EQ(back.size(), 3u);
    EXPECT_TRUE(back[0].IsFromEmptyFile());
    EXPECT_TRUE(back[1].IsFromEmptyFile());
    EXPECT_FALSE(back[2].IsFromEmptyFile());  // block 1's file holds chunks
    EXPECT_EQ(back[2], track.Files()[0]);
    m->RemoveFiles(back);
    EXPECT_EQ(m->GetMaxTrackSize(), 2000u);
    EXPECT_EQ(m->GetTrackSize(), 1800u);

    // Everything that is not protected goes; the protected block stays.
    std::vector<ChunkFile> rest = m->RemoveFiles(~0UL);
    ASSERT_EQ(rest.size(), 1u);
    m->RemoveFiles(rest);
    EXPECT_EQ(m->GetBlocks().size(), 1u);

    // After a restart the track holds only what it kept.
    auto reopened = track.OpenManager();
    EXPECT_EQ(reopened->GetBlocks().size(), 1u);
    EXPECT_TRUE(reopened->GetEmptyFiles().empty());
    EXPECT_EQ(reopened->GetMaxTrackSize(), 1000u);
    EXPECT_EQ(reopened->GetBlocks().begin()->first, Sec(1));

    EXPECT_FALSE(m->ForceRemoveFiles({ChunkFile(42, 8, 1000, 1)}));
    EXPECT_TRUE(m->ForceRemoveFiles({track.Files()[1]}));
    EXPECT_TRUE(m->GetBlocks().empty());
}

TEST(LoopRecordingFileManager, ClearKeepsProtectedBlocks) {
    TrackFixture track(1, 3, 1000);
    auto m = track.NewManagerWithFiles();
    for (int i = 0; i < 3; ++i)
        m->Append(Sec(i), Sec(1), 900);
    m->Protect(9, Sec(1), Sec(1.5));
    LogCapture log("LoopRecordingFileManager");
    m->Clear();
    EXPECT_TRUE(log.HasExactly(
        "Track 1: cleared but there were protections: 2 blocks removed. There are now 2 empty "
        "files available."));
    EXPECT_EQ(m->GetEndOfTrack(), Sec(2));
    EXPECT_EQ(m->GetTrackSize(), 900u);
    EXPECT_EQ(m->GetEmptyFiles().size(), 2u);
    m->Unprotect(9);
    m->Clear();
    EXPECT_TRUE(
        log.Contains("Track 1 cleared. There are now 3 empty files available. Track is empty."));
    EXPECT_EQ(m->GetTrackSize(), 0u);
    // A cleared track starts again with a first block.
    EXPECT_EQ(m->Append(Sec(10), Sec(1), 100).accumulatedDuration, TimePoint());
}
