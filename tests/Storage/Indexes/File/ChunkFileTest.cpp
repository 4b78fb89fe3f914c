#include "Storage/Indexes/File/ChunkFile.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <vector>

TEST(ChunkFile, ConstructorsAndTextForm) {
    EXPECT_EQ(ChunkFile().ToString(), "0_0_0_0_0_1");
    EXPECT_EQ(ChunkFile(42, 8, 268435456, 7).ToString(), "42_8_268435456_7_0_1");
    EXPECT_EQ(ChunkFile(42, 8, 268435456, 7, 3).ToString(), "42_8_268435456_7_3_1");
    EXPECT_EQ(ChunkFile(-5, 8, 10, 0, -2, false).ToString(), "-5_8_10_0_-2_0");

    ChunkFile file(42, 8, 1024, 7, 3, false);
    std::ostringstream os;
    os << file;
    EXPECT_EQ(os.str(), "42_8_1024_7_3_0");

    ChunkFile copy(1, 1, 1, 1);
    copy = file;
    EXPECT_EQ(copy.ToString(), file.ToString());  // fromEmptyFile copied too
}

TEST(ChunkFile, FileNameIsPaddedButNeverTruncated) {
    EXPECT_EQ(ChunkFile(42, 8, 0, 0).GetFileName(), "00000042");
    EXPECT_EQ(ChunkFile(42, 2, 0, 0).GetFileName(), "42");
    EXPECT_EQ(ChunkFile(123456, 4, 0, 0).GetFileName(), "123456");
    EXPECT_EQ(ChunkFile(-42, 5, 0, 0).GetFileName(), "00-42");
    EXPECT_EQ(ChunkFile(42, 0, 0, 0).GetFileName(), "");
    EXPECT_EQ(ChunkFile(42, -3, 0, 0).GetFileName(), "");
}

TEST(ChunkFile, AbsoluteFileName) {
    ChunkFile inTrack(42, 8, 0, 7);
    EXPECT_EQ(inTrack.GetAbsoluteFileName("/data/tracks", false), "/data/tracks/7/00000042");
    EXPECT_EQ(inTrack.GetAbsoluteFileName("/data/tracks/", false), "/data/tracks/7/00000042");
    EXPECT_EQ(inTrack.GetAbsoluteFileName("/data/tracks", true), "/data/tracks/00000042");
    EXPECT_EQ(ChunkFile(42, 8, 0, 0).GetAbsoluteFileName("/pool", false), "/pool/00000042");
    EXPECT_EQ(ChunkFile(42, 8, 0, -1).GetAbsoluteFileName("/pool", false), "/pool/00000042");
    // No name: the root and directory with nothing appended.
    EXPECT_EQ(ChunkFile(42, 0, 0, 7).GetAbsoluteFileName("/data", false), "/data/7");
    EXPECT_EQ(ChunkFile(42, 0, 0, 7).GetAbsoluteFileName("/data", true), "/data");
}

TEST(ChunkFile, FromFileParsesNameAndParentDirectory) {
    ChunkFile file;
    file.SetFromEmptyFile(false);
    ASSERT_TRUE(file.FromFile("/pool/00000042", 1024));
    EXPECT_EQ(file.GetFileNumber(), 42);
    EXPECT_EQ(file.GetFileNameSize(), 8);
    EXPECT_EQ(file.Size(), 1024);
    EXPECT_EQ(file.GetDirectoryNumber(), 0);
    EXPECT_FALSE(file.IsFromEmptyFile());  // left as it was
    EXPECT_EQ(file.GetFileName(), "00000042");

    ChunkFile inTrack(1, 1, 1, 1, 9);
    ASSERT_TRUE(inTrack.FromFile("/tracks/12/00000042", 2048));
    EXPECT_EQ(inTrack, ChunkFile(42, 8, 2048, 12, 0));
    EXPECT_EQ(inTrack.GetAbsoluteFileName("/tracks", false), "/tracks/12/00000042");

    // Parsed as stoll does: trailing text ignored, the full name length kept.
    ASSERT_TRUE(file.FromFile("/tracks/7abc/12x", 5));
    EXPECT_EQ(file.GetFileNumber(), 12);
    EXPECT_EQ(file.GetFileNameSize(), 3);
    EXPECT_EQ(file.GetDirectoryNumber(), 7);

    ASSERT_TRUE(file.FromFile("00000003", 5));  // no parent at all
    EXPECT_EQ(file.GetDirectoryNumber(), 0);
    ASSERT_TRUE(file.FromFile("/00000003", 5));
    EXPECT_EQ(file.GetDirectoryNumber(), 0);
}

TEST(ChunkFile, FromFileRefusesOtherFilesAndChangesNothing) {
    const ChunkFile before(5, 3, 7, 9, 2, false);
    for (const char* path : {"/tracks/12/00000042.tmp", "/tracks/12/abc", "/tracks/12/",
                             "/tracks/12/99999999999999999999", "/tracks/12/00000042."}) {
        ChunkFile file = before;
        EXPECT_FALSE(file.FromFile(path, 1024)) << path;
        EXPECT_EQ(file.ToString(), before.ToString()) << path;
    }
    // An unparsable parent only resets the directory number.
    ChunkFile file = before;
    ASSERT_TRUE(file.FromFile("/tracks/99999999999999999999/00000042", 1));
    EXPECT_EQ(file.GetDirectoryNumber(), 0);
}

TEST(ChunkFile, EqualityAndOrderingAreAsymmetric) {
    EXPECT_EQ(ChunkFile(1, 8, 10, 2, 0, true), ChunkFile(1, 8, 10, 2, 0, false));
    EXPECT_NE(ChunkFile(1, 8, 10, 2, 0), ChunkFile(1, 8, 10, 2, 1));
    EXPECT_NE(ChunkFile(1, 8, 10, 2), ChunkFile(1, 8, 10, 3));

    const ChunkFile small(1, 8, 10, 2);
    const ChunkFile big(1, 8, 20, 2);
    EXPECT_NE(small, big);
    EXPECT_FALSE(small < big);
    EXPECT_FALSE(big < small);

    std::set<ChunkFile> files{ChunkFile(3, 8, 10, 0), small, big, ChunkFile(2, 8, 10, 9)};
    ASSERT_EQ(files.size(), 3u);  // one entry per file number
    std::vector<long> numbers;
    for (const ChunkFile& f : files) {
        numbers.push_back(f.GetFileNumber());
    }
    EXPECT_EQ(numbers, (std::vector<long>{1, 2, 3}));
    EXPECT_EQ(files.begin()->Size(), 10);  // the first one inserted stays
}
