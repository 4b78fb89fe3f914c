#include "Storage/Indexes/Ram/TrackFileBook.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "Platform/Logging/LoggingManager.h"
#include "Storage/Indexes/Ram/ProtectionTable.h"

using FileSystem::Block;
using FileSystem::Chunk;
using Moreld::Time::TimePoint;

namespace {

constexpr unsigned long kFileSize = 1000;

TimePoint S(int64_t s) {
    return TimePoint::FromNanoseconds(s * 1000000000);
}

ChunkFile File(long number) {
    return ChunkFile(number, 8, kFileSize, 1);
}

// The in-memory state of a track index, without its locks and database:
// blocks of one 100-byte chunk each, lasting one second.
class TrackState : public ::testing::Test {
  protected:
    TrackState()
        : logger_(tav::mr::logging::LoggingManager::GetLogger("TrackFileBookTest")),
          book_(blocks_, emptyFiles_, recyclableKeys_, 7, logger_),
          protections_(7, logger_) {}

    void AddBlock(int64_t start, long fileNumber) {
        Block& block = book_.OpenBlock(S(start), File(fileNumber));
        ASSERT_TRUE(block.Append(
            Chunk(S(start), S(1),
                  ChunkLocation(File(fileNumber), Moreld::File::ChunkFileHeader::kSize, 100, 0))));
        recyclableKeys_.insert(S(start));
    }

    std::map<TimePoint, Block> blocks_;
    std::deque<ChunkFile> emptyFiles_;
    std::set<TimePoint> recyclableKeys_;
    tav::mr::logging::Logger logger_;
    TrackFileBook book_;
    ProtectionTable protections_;
};

TEST_F(TrackState, NewBlocksTakeEmptyFilesThenTheOldestUnprotectedBlock) {
    emptyFiles_ = {File(5), File(6)};
    bool looping = true;
    TrackFileBook::FileChoice choice = book_.ChooseForNewBlock(S(0), 100, looping);
    EXPECT_EQ(choice.file, File(5));
    EXPECT_FALSE(choice.recycled);
    EXPECT_FALSE(looping);
    EXPECT_EQ(book_.Release(choice), 0u);
    EXPECT_EQ(emptyFiles_.size(), 1u);

    emptyFiles_.clear();
    AddBlock(10, 1);
    AddBlock(20, 2);
    AddBlock(30, 3);
    protections_.Protect(9, S(9), S(11), false, blocks_, recyclableKeys_);
    choice = book_.ChooseForNewBlock(S(40), 100, looping);
    EXPECT_EQ(choice.file, File(2)) << "the protected oldest block keeps its file";
    EXPECT_TRUE(choice.recycled);
    EXPECT_TRUE(looping);
    EXPECT_EQ(book_.Release(choice), 100u) << "the payload of the block dropped";
    EXPECT_EQ(blocks_.count(S(20)), 0u);
    EXPECT_EQ(recyclableKeys_, (std::set<TimePoint>{S(30)}));

    // Everything held: the chunk has nowhere to go and nothing changes.
    protections_.Protect(10, S(30), S(31), false, blocks_, recyclableKeys_);
    EXPECT_THROW(book_.ChooseForNewBlock(S(40), 100, looping), std::runtime_error);
    EXPECT_EQ(blocks_.size(), 2u);
    // A chunk bigger than the file is refused before anything is taken.
    emptyFiles_ = {File(8)};
    EXPECT_THROW(book_.ChooseForNewBlock(S(40), kFileSize + 1, looping), std::runtime_error);
    EXPECT_EQ(emptyFiles_.size(), 1u);
}

TEST_F(TrackState, GivingFilesBackSkipsKeptFilesAndHealsMissingBlocks) {
    emptyFiles_ = {File(5), File(6)};
    AddBlock(10, 1);
    AddBlock(20, 2);
    AddBlock(30, 3);
    recyclableKeys_.insert(S(15));  // a key whose block has gone
    auto keepFile6And2 = [](const ChunkFile& f) { return f == File(6) || f == File(2); };

    TrackFileBook::Freed freed;
    std::vector<ChunkFile> files = book_.TakeEmptyFiles(3 * kFileSize, freed, keepFile6And2);
    ASSERT_EQ(files, (std::vector<ChunkFile>{File(5)}));
    files = book_.TakeRecyclableBlocks(3 * kFileSize, freed, keepFile6And2);
    EXPECT_EQ(files, (std::vector<ChunkFile>{File(1), File(3)}));
    EXPECT_FALSE(files[0].IsFromEmptyFile()) << "a block's file has chunk rows";
    EXPECT_EQ(freed.fileBytes, 3 * kFileSize);
    EXPECT_EQ(freed.payload, 200u);
    EXPECT_EQ(recyclableKeys_, (std::set<TimePoint>{S(20)}));
    EXPECT_EQ(emptyFiles_, (std::deque<ChunkFile>{File(6)}));
}

TEST_F(TrackState, ClearingAndPurgingTurnUnprotectedBlocksIntoEmptyFiles) {
    AddBlock(10, 1);
    AddBlock(20, 2);
    AddBlock(30, 3);
    AddBlock(40, 4);
    protections_.Protect(9, S(20), S(21), false, blocks_, recyclableKeys_);

    TrackFileBook::Freed freed;
    auto keepNone = [](const ChunkFile&) { return false; };
    // Purge stops at the first block ending after the cutoff.
    std::vector<ChunkFile> purged = book_.EmptyBlocksEndingBy(S(31), freed, keepNone);
    EXPECT_EQ(purged, (std::vector<ChunkFile>{File(1), File(3)}));
    EXPECT_EQ(blocks_.count(S(20)), 1u) << "protected blocks stay";
    EXPECT_EQ(blocks_.count(S(40)), 1u);

    std::vector<ChunkFile> cleared = book_.EmptyRecyclableBlocks(freed);
    EXPECT_EQ(cleared, (std::vector<ChunkFile>{File(4)}));
    EXPECT_EQ(emptyFiles_, (std::deque<ChunkFile>{File(1), File(3), File(4)}));
    EXPECT_TRUE(emptyFiles_.back().IsFromEmptyFile());
    EXPECT_TRUE(recyclableKeys_.empty());
    EXPECT_EQ(freed.payload, 300u);
    EXPECT_EQ(freed.fileBytes, 0u) << "the files stay in the track";
}

TEST_F(TrackState, ProtectionsHoldBlocksUntilTheLastOneIsLifted) {
    AddBlock(10, 1);
    AddBlock(20, 2);
    EXPECT_THROW(protections_.CheckRequest(0, S(10), S(20)), std::runtime_error);
    EXPECT_THROW(protections_.CheckRequest(1, S(20), S(20)), std::runtime_error);
    EXPECT_EQ(protections_.Protect(1, S(10), S(21), false, blocks_, recyclableKeys_).size(), 2u);
    EXPECT_EQ(protections_.Protect(2, S(20), S(40), false, blocks_, recyclableKeys_).size(), 1u);
    EXPECT_THROW(protections_.Protect(2, S(10), S(11), false, blocks_, recyclableKeys_),
                 std::runtime_error);
    EXPECT_THROW(protections_.Protect(3, S(50), S(60), false, blocks_, recyclableKeys_),
                 std::runtime_error);
    EXPECT_FALSE(protections_.Has(3));
    EXPECT_TRUE(recyclableKeys_.empty());

    // Protection 2 reaches ahead: a block recorded in its range is held.
    AddBlock(30, 3);
    EXPECT_TRUE(protections_.HoldNewest(blocks_, recyclableKeys_));
    EXPECT_FALSE(protections_.HoldNewest(blocks_, recyclableKeys_)) << "held once";
    EXPECT_TRUE(recyclableKeys_.empty());

    EXPECT_EQ(protections_.Release(1, blocks_, recyclableKeys_), 1u) << "block 20 is still held";
    EXPECT_EQ(recyclableKeys_, (std::set<TimePoint>{S(10)}));
    EXPECT_EQ(protections_.Release(2, blocks_, recyclableKeys_), 2u);
    EXPECT_EQ(recyclableKeys_, (std::set<TimePoint>{S(10), S(20), S(30)}));
    EXPECT_TRUE(protections_.GetIds().empty());
    EXPECT_FALSE(protections_.HasRanges());
}

}  // namespace
