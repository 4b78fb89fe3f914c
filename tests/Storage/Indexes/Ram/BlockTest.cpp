#include "Storage/Indexes/Ram/Block.h"
#include "tests/Support/TestTime.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

using FileSystem::Block;
using FileSystem::Chunk;
using loopstore::test::Ns;
using Moreld::Time::TimePoint;

namespace {

const ChunkFile kFile(42, 8, 1024, 7);

// A chunk of kFile starting at `start` ns, lasting `duration` ns; the chunk
// index is garbage on purpose, the block must rewrite it.
Chunk MakeChunk(int64_t start, int64_t duration, unsigned long size = 10,
                const ChunkFile& file = kFile) {
    return Chunk(Ns(start), Ns(duration), ChunkLocation(file, 0, size, 77));
}

// A block of contiguous chunks [100,110) [110,120) [120,130) and one after a
// gap, [200,210).
Block MakeBlockWithGap() {
    Block block(BlockConfiguration(0, 10));
    for (int64_t start : {100, 110, 120}) {
        EXPECT_TRUE(block.Append(MakeChunk(start, 10)));
    }
    EXPECT_TRUE(block.Append(MakeChunk(200, 10)));
    return block;
}

TimePoint LookupStart(const Block& block, int64_t tp) {
    Chunk out;
    return block.Lookup(Ns(tp), out) ? out.timepoint : Ns(-1);
}
TimePoint NextStart(const Block& block, int64_t tp) {
    Chunk out;
    return block.Next(Ns(tp), out) ? out.timepoint : Ns(-1);
}
TimePoint PreviousStart(const Block& block, int64_t tp) {
    Chunk out;
    return block.Previous(Ns(tp), out) ? out.timepoint : Ns(-1);
}

}  // namespace

TEST(Block, EmptyBlock) {
    Block block;
    EXPECT_TRUE(block.GetConfiguration().OneChunkPerFile());
    EXPECT_TRUE(block.Empty());
    EXPECT_EQ(block.GetCurrentSize(), 16u);
    EXPECT_EQ(block.GetTcIn(), TimePoint());
    EXPECT_EQ(block.GetTcOut(), TimePoint());
    EXPECT_EQ(block.GetChunkFile().ToString(), ChunkFile().ToString());
    EXPECT_EQ(block.GetSizeOnRam(), 48u);
    EXPECT_FALSE(block.IsBetween(Ns(0), Ns(1000)));
    EXPECT_EQ(LookupStart(block, 0), Ns(-1));
    EXPECT_EQ(NextStart(block, -100), Ns(-1));
    EXPECT_EQ(PreviousStart(block, 100), Ns(-1));
    try {
        block.GetFirstChunk();
        ADD_FAILURE();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Cannot get first chunk : block is empty");
    }
    try {
        block.GetLastChunk();
        ADD_FAILURE();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Cannot get last chunk : block is empty");
    }
}

TEST(Block, CapacityRules) {
    Block oneChunk(BlockConfiguration(0, 1));
    EXPECT_TRUE(oneChunk.Append(MakeChunk(0, 10, 1'000'000'000)));
    EXPECT_FALSE(oneChunk.Append(MakeChunk(10, 10, 0)));

    Block bytes(BlockConfiguration(100, 0));
    EXPECT_FALSE(bytes.IsSpaceForNewChunk(85));  // the 16-byte header counts
    EXPECT_TRUE(bytes.Append(MakeChunk(0, 10, 44)));
    EXPECT_EQ(bytes.GetCurrentSize(), 60u);  // where the next chunk goes
    EXPECT_FALSE(bytes.Append(MakeChunk(10, 10, 41)));
    EXPECT_TRUE(bytes.Append(MakeChunk(10, 10, 40)));  // fills it exactly
    EXPECT_EQ(bytes.GetCurrentSize(), 100u);
    EXPECT_FALSE(bytes.Append(MakeChunk(20, 10, 1)));
    EXPECT_TRUE(bytes.IsSpaceForNewChunk(0));
    EXPECT_EQ(bytes.GetChunkNumber(), 2u);

    Block both(BlockConfiguration(100, 2));
    EXPECT_TRUE(both.Append(MakeChunk(0, 10, 1)));
    EXPECT_TRUE(both.Append(MakeChunk(10, 10, 1)));
    EXPECT_FALSE(both.Append(MakeChunk(20, 10, 0)));
    EXPECT_EQ(both.GetChunkNumber(), 2u);
    EXPECT_EQ(both.GetCurrentSize(), 18u);
    EXPECT_EQ(both.GetTcOut(), Ns(20));
}

TEST(Block, AppendKeepsTimeOrderAndOneFile) {
    Block block(BlockConfiguration(0, 10));
    // The first chunk of an empty block never checks the file.
    ASSERT_TRUE(block.Append(MakeChunk(100, 10, 5, ChunkFile(9, 8, 1024, 3))));
    EXPECT_EQ(block.GetStartTime(), Ns(100));
    EXPECT_EQ(block.GetEndTime(), Ns(110));
    EXPECT_FALSE(block.Append(MakeChunk(109, 10, 5, ChunkFile(9, 8, 1024, 3))));
    // Same file although fromEmptyFile differs.
    ASSERT_TRUE(block.Append(MakeChunk(110, 10, 5, ChunkFile(9, 8, 1024, 3, 0, false))));
    ASSERT_TRUE(block.Append(MakeChunk(150, 10, 5, ChunkFile(9, 8, 1024, 3))));  // a gap is fine

    const std::string before = block.ToString();
    try {
        block.Append(MakeChunk(160, 10, 5, ChunkFile(10, 8, 1024, 3)));
        ADD_FAILURE() << "chunk of another file accepted";
    } catch (const std::runtime_error& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("Chunk file for chunk ", 0), 0u) << text;
        EXPECT_NE(text.find(" must be equal to the one of the block: 9_8_1024_3_0_1"),
                  std::string::npos)
            << text;
    }
    EXPECT_EQ(block.ToString(), before);

    unsigned long expectedIndex = 0;
    for (const auto& [key, chunk] : block.GetChunks()) {
        EXPECT_EQ(key, chunk.timepoint);
        EXPECT_EQ(chunk.location.chunkIndex, expectedIndex++);
    }
    EXPECT_EQ(block.GetLastChunk().location.chunkIndex, 2u);
    EXPECT_EQ(block.GetIndexOfNewChunk(), 3u);
    EXPECT_EQ(block.GetCurrentSize(), 31u);

    // A zero-length chunk cannot be followed by another at the same instant.
    Block zero(BlockConfiguration(0, 10));
    ASSERT_TRUE(zero.Append(MakeChunk(100, 0)));
    EXPECT_FALSE(zero.Append(MakeChunk(100, 10)));
    EXPECT_TRUE(zero.Append(MakeChunk(101, 10)));
}

TEST(Block, LookupNextPreviousEdges) {
    const Block block = MakeBlockWithGap();

    EXPECT_EQ(LookupStart(block, 99), Ns(-1));
    EXPECT_EQ(LookupStart(block, 100), Ns(100));
    EXPECT_EQ(LookupStart(block, 109), Ns(100));
    EXPECT_EQ(LookupStart(block, 110), Ns(110));  // exact end: the next chunk starts there
    EXPECT_EQ(LookupStart(block, 130), Ns(-1));   // exact end before a gap
    EXPECT_EQ(LookupStart(block, 150), Ns(-1));
    EXPECT_EQ(LookupStart(block, 209), Ns(200));
    EXPECT_EQ(LookupStart(block, 210), Ns(-1));

    EXPECT_EQ(NextStart(block, 0), Ns(100));
    EXPECT_EQ(NextStart(block, 100), Ns(110));  // exact start: the one after
    EXPECT_EQ(NextStart(block, 125), Ns(200));
    EXPECT_EQ(NextStart(block, 200), Ns(-1));

    EXPECT_EQ(PreviousStart(block, 99), Ns(-1));
    EXPECT_EQ(PreviousStart(block, 105), Ns(-1));  // inside the first chunk
    EXPECT_EQ(PreviousStart(block, 110), Ns(100));
    EXPECT_EQ(PreviousStart(block, 115), Ns(100));
    EXPECT_EQ(PreviousStart(block, 130), Ns(120));  // ends exactly there
    EXPECT_EQ(PreviousStart(block, 150), Ns(120));
    EXPECT_EQ(PreviousStart(block, 205), Ns(120));
    EXPECT_EQ(PreviousStart(block, 1000), Ns(200));

    Chunk out;
    ASSERT_TRUE(block.Lookup(Ns(115), out));
    EXPECT_EQ(out, block.GetChunks().at(Ns(110)));
}

TEST(Block, IsBetween) {
    const Block block = MakeBlockWithGap();        // [100, 210)
    EXPECT_TRUE(block.IsBetween(Ns(100), Ns(0)));  // same start, whatever b is
    EXPECT_TRUE(block.IsBetween(Ns(50), Ns(101)));
    EXPECT_FALSE(block.IsBetween(Ns(50), Ns(100)));
    EXPECT_TRUE(block.IsBetween(Ns(150), Ns(160)));
    EXPECT_TRUE(block.IsBetween(Ns(209), Ns(5000)));
    EXPECT_FALSE(block.IsBetween(Ns(210), Ns(5000)));
}

TEST(Block, CopiesAssignmentAndComparison) {
    Block block = MakeBlockWithGap();
    block.GetProtections().insert(5);
    block.GetProtections().insert(8);
    EXPECT_EQ(block.GetSizeOnRam(), 48u + 4 * 112u + 2 * 8u);
    EXPECT_EQ(block.ToString().substr(0, 16), "0_10;2;5,8,4;100");

    const Block copy(block);
    EXPECT_EQ(copy, block);
    EXPECT_EQ(copy.GetProtections().size(), 2u);

    Block target(BlockConfiguration(100, 0));
    target.GetProtections().insert(9);
    target = block;
    EXPECT_EQ(target.GetProtections(), (std::set<unsigned long>{9}));
    EXPECT_TRUE(target.GetConfiguration().IsEqual(block.GetConfiguration()));
    EXPECT_EQ(target.GetChunks(), block.GetChunks());
    EXPECT_NE(target, block);  // the protections differ
    target.GetProtections() = {5, 8};
    EXPECT_EQ(target, block);

    Block moved(BlockConfiguration(1, 1));
    moved.GetProtections().insert(3);
    moved = Block(copy);
    EXPECT_EQ(moved.GetProtections(), (std::set<unsigned long>{3}));
    EXPECT_EQ(moved.GetChunks(), block.GetChunks());

    Block other = block;
    other.Reset(BlockConfiguration(0, 10));
    EXPECT_TRUE(other.Empty());
    EXPECT_TRUE(other.GetProtections().empty());
    EXPECT_EQ(other.GetCurrentSize(), 16u);
    EXPECT_EQ(other.GetEndTime(), TimePoint());
    EXPECT_NE(other, block);

    // Same shape, one chunk differing in its offset only.
    Block a(BlockConfiguration(0, 10));
    Block b(BlockConfiguration(0, 10));
    ASSERT_TRUE(a.Append(MakeChunk(100, 10)));
    Chunk offsetDiffers = MakeChunk(100, 10);
    offsetDiffers.location.offset = 16;
    ASSERT_TRUE(b.Append(offsetDiffers));
    EXPECT_NE(a, b);
}
