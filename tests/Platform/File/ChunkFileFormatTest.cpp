// Pins the on-disk layout of doc/chunk_file_format.md: files written today
// must stay readable, so any change here is a format change.

#include <gtest/gtest.h>
#include <xxhash.h>

#include <cstdint>
#include <string>

#include "Platform/File/DataChunkFileAppender.h"
#include "tests/Platform/File/ChunkFileTestUtil.h"
#include "tests/Support/TempDir.h"

using Moreld::File::DataChunkFileAppender;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

namespace loopstore::test {
namespace {

uint64_t Fixed(const std::string& bytes, size_t offset, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) {
        value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
    }
    return value;
}

TEST(ChunkFileFormat, HeaderAndRecordBytesAreAsDocumented) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, 4096);
    OverwriteAt(path, 0, std::string(4096, '\xee'));
    DataChunk chunk(TimePoint::FromNanoseconds(-2), TimePoint::FromNanoseconds(0x0102030405),
                    "PAYLOAD");
    chunk.SetProperty("kb", "v");
    chunk.SetProperty("ka", "");
    {
        DataChunkFileAppender appender(path, false, 4096);
        ASSERT_TRUE(appender.Append(chunk));
    }
    const std::string bytes = ReadWholeFile(path);

    EXPECT_EQ(bytes.substr(0, 4), "LSCF");
    const uint64_t generation = Fixed(bytes, 4, 8);
    EXPECT_NE(generation, 0u);
    EXPECT_EQ(Fixed(bytes, 12, 4), static_cast<uint32_t>(XXH3_64bits(bytes.data(), 12)));

    const std::string record = bytes.substr(16, chunk.GetSizeOnFile());
    EXPECT_EQ(record.substr(0, 4), "LSCR");
    EXPECT_EQ(Fixed(record, 4, 4), 4u + 2 * 8 + 2 + 0 + 2 + 1);
    EXPECT_EQ(Fixed(record, 8, 8), 7u);
    EXPECT_EQ(Fixed(record, 16, 8), generation);
    EXPECT_EQ(static_cast<int64_t>(Fixed(record, 24, 8)), -2);
    EXPECT_EQ(Fixed(record, 32, 8), 0x0102030405u);
    // Properties in key order: count, then sizes, key, value.
    EXPECT_EQ(record.substr(48), std::string("\2\0\0\0"
                                             "\2\0\0\0\0\0\0\0ka"
                                             "\2\0\0\0\1\0\0\0kbv"
                                             "PAYLOAD",
                                             4 + 10 + 11 + 7));
    const std::string checked = record.substr(0, 40) + record.substr(48);
    EXPECT_EQ(Fixed(record, 40, 8), XXH3_64bits(checked.data(), checked.size()));
    // The end mark: the magic of whatever follows is cleared, nothing more.
    const size_t end = 16 + record.size();
    EXPECT_EQ(bytes.substr(end, 4), std::string(4, '\0'));
    EXPECT_EQ(bytes.find_first_not_of('\xee', end + 4), std::string::npos);
}

}  // namespace
}  // namespace loopstore::test
