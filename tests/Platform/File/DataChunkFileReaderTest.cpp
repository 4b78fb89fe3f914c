#include "Platform/File/DataChunkFileReader.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/Logging/LogCapture.h"
#include "tests/Platform/File/ChunkFileTestUtil.h"
#include "tests/Support/TempDir.h"

using Moreld::File::DataChunkFileAppender;
using Moreld::File::DataChunkFileReader;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

namespace loopstore::test {
namespace {

constexpr uint64_t kFileSize = 1 << 20;

// The error text of `read`, or "" when it did not throw.
template <typename Read>
std::string ErrorOf(Read read) {
    try {
        read();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return {};
}

bool Contains(const std::string& text, const std::string& fragment) {
    return text.find(fragment) != std::string::npos;
}

class DataChunkFileReaderTest : public testing::Test {
  protected:
    void SetUp() override {
        path_ = dir_ / "00000042";
        CreatePreallocatedFile(path_, kFileSize);
        chunks_ = {
            MakeChunk(1, 1500, {{"a", "1"}, {"b", std::string("\0\xff", 2)}, {"c", ""}}),
            MakeChunk(2, 0),
            MakeChunk(3, 70000, {{std::string("k\0", 2), "binary key"}}),
        };
        chunks_[1].SetDuration(TimePoint::FromNanoseconds(-5));  // stored as it is
        DataChunkFileAppender appender(path_, false, kFileSize);
        for (const DataChunk& chunk : chunks_) {
            ASSERT_TRUE(appender.Append(chunk));
        }
        offsets_ = OffsetsOf(chunks_);
    }

    TempDir dir_;
    std::string path_;
    std::vector<DataChunk> chunks_;
    std::vector<uint64_t> offsets_;
};

TEST_F(DataChunkFileReaderTest, ReadsBackEveryChunkWithTheWantedPropertiesOnly) {
    DataChunkFileReader reader(path_);
    EXPECT_EQ(reader.GetFilename(), path_);
    const std::set<std::string> all = {"a", "b", "c", std::string("k\0", 2)};
    for (size_t i = 0; i < chunks_.size(); ++i) {
        DataChunk out = MakeChunk(99, 10, {{"stale", "x"}});
        reader.GetChunk(out, offsets_[i], all);
        EXPECT_EQ(out, chunks_[i]) << i;
        EXPECT_EQ(out.GetSizeOnFile(), chunks_[i].GetSizeOnFile());
    }
    DataChunk out;
    reader.GetChunk(out, offsets_[0], {"b", "zzz"});
    EXPECT_EQ(out.GetProperties(), (DataChunk::Properties{{"b", std::string("\0\xff", 2)}}));
    EXPECT_EQ(out.GetData(), chunks_[0].GetData());
    reader.GetChunk(out, offsets_[0], {});
    EXPECT_TRUE(out.GetProperties().empty());

    reader.GetChunk(out, offsets_[2], {}, TimePoint::FromSeconds(3), chunks_[2].GetSizeOnFile());
    EXPECT_EQ(out.GetData(), chunks_[2].GetData());
}

TEST_F(DataChunkFileReaderTest, RefusesWhatIsNotTheExpectedRecord) {
    DataChunkFileReader reader(path_);
    DataChunk out;
    std::string error = ErrorOf([&] {
        reader.GetChunk(out, offsets_[1], {}, TimePoint::FromSeconds(1),
                        chunks_[1].GetSizeOnFile());
    });
    EXPECT_TRUE(Contains(error, path_)) << error;
    EXPECT_TRUE(Contains(error, "offset " + std::to_string(offsets_[1]))) << error;
    EXPECT_TRUE(Contains(error, TimePoint::FromSeconds(1).ToString())) << error;
    EXPECT_TRUE(Contains(error, TimePoint::FromSeconds(2).ToString())) << error;

    error = ErrorOf([&] {
        reader.GetChunk(out, offsets_[1], {}, TimePoint::FromSeconds(2),
                        chunks_[1].GetSizeOnFile() + 1);
    });
    EXPECT_TRUE(Contains(error, std::to_string(chunks_[1].GetSizeOnFile()))) << error;

    // Offsets that are not record boundaries, or lie outside the records.
    for (uint64_t offset : {uint64_t{0}, uint64_t{8}, offsets_[1] + 1, offsets_[2] - 48,
                            kFileSize - 47, kFileSize, kFileSize + 1000, UINT64_MAX}) {
        error = ErrorOf([&] { reader.GetChunk(out, offset, {}); });
        EXPECT_TRUE(Contains(error, "offset " + std::to_string(offset))) << offset << ": " << error;
    }
    // Right after the last record lies zero-filled space.
    const uint64_t tail = offsets_[2] + chunks_[2].GetSizeOnFile();
    EXPECT_TRUE(Contains(ErrorOf([&] { reader.GetChunk(out, tail, {}); }), "magic"));

    // The reader stays usable after refusals.
    reader.GetChunk(out, offsets_[0], {"a"});
    EXPECT_EQ(out.GetTimePoint(), TimePoint::FromSeconds(1));
}

TEST_F(DataChunkFileReaderTest, NamesWhatIsDamagedAndLogsIt) {
    tav::mr::logging::LogCapture capture("DataChunkFileReader");
    DataChunk out;
    {
        FlipByteAt(path_, offsets_[2] + 48 + 4 + 8 + 2 + 10 + 100);  // a payload byte
        DataChunkFileReader reader(path_);
        const std::string error = ErrorOf([&] { reader.GetChunk(out, offsets_[2], {}); });
        EXPECT_TRUE(Contains(error, "checksum mismatch")) << error;
        EXPECT_EQ(capture.LevelOf("checksum mismatch"), 50);
    }
    {
        // A damaged property size.
        OverwriteAt(path_, offsets_[0] + 48 + 4, std::string("\xff\0\0\0", 4));
        DataChunkFileReader reader(path_);
        const std::string error = ErrorOf([&] { reader.GetChunk(out, offsets_[0], {"a"}); });
        EXPECT_FALSE(error.empty());
        reader.GetChunk(out, offsets_[1], {});  // its neighbour is intact
        EXPECT_EQ(out, chunks_[1]);
    }
    {
        // A payload size running past the end of the file.
        OverwriteAt(path_, offsets_[1] + 8, std::string(8, '\x7f'));
        DataChunkFileReader reader(path_);
        const std::string error = ErrorOf([&] { reader.GetChunk(out, offsets_[1], {}); });
        EXPECT_TRUE(Contains(error, "past the end")) << error;
    }
}

// After a first record the reader guesses the next one's layout and reads it
// in one call; a wrong guess, even of the right total size, must fall back,
// and a right one must still be verified.
TEST_F(DataChunkFileReaderTest, RecordsReadWithAGuessedLayoutAreStillVerified) {
    const std::string path = dir_ / "00000043";
    CreatePreallocatedFile(path, kFileSize);
    // The same record size, split differently between properties and payload.
    const std::vector<DataChunk> chunks = {
        MakeChunk(10, 1000, {{"k", "vv"}}),
        MakeChunk(11, 1001, {{"k", "v"}}),
        MakeChunk(12, 1000, {{"k", "vv"}}),
    };
    ASSERT_EQ(chunks[0].GetSizeOnFile(), chunks[1].GetSizeOnFile());
    {
        DataChunkFileAppender appender(path, false, kFileSize);
        for (const DataChunk& chunk : chunks) {
            ASSERT_TRUE(appender.Append(chunk));
        }
    }
    const std::vector<uint64_t> offsets = OffsetsOf(chunks);
    DataChunkFileReader reader(path);
    DataChunk out;
    for (size_t i : {0, 1, 2, 2, 0}) {
        reader.GetChunk(out, offsets[i], {"k"}, chunks[i].GetTimePoint(),
                        chunks[i].GetSizeOnFile());
        EXPECT_EQ(out, chunks[i]) << i;
    }
    const std::string wrongTime = ErrorOf([&] {
        reader.GetChunk(out, offsets[2], {}, chunks[1].GetTimePoint(), chunks[2].GetSizeOnFile());
    });
    EXPECT_TRUE(Contains(wrongTime, "not the expected")) << wrongTime;

    FlipByteAt(path, offsets[2] + chunks[2].GetSizeOnFile() - 1);  // the last payload byte
    const std::string damaged = ErrorOf([&] {
        reader.GetChunk(out, offsets[2], {}, chunks[2].GetTimePoint(), chunks[2].GetSizeOnFile());
    });
    EXPECT_TRUE(Contains(damaged, "checksum mismatch")) << damaged;
}

TEST_F(DataChunkFileReaderTest, OpensOnlyExistingFilesAndSeesAFileThatGetsItsFirstRecord) {
    const std::string missing = dir_ / "missing";
    EXPECT_EQ(ErrorOf([&] { DataChunkFileReader reader(missing); }),
              "Cannot open chunk file " + missing + ": No such file or directory");

    const std::string fresh = dir_ / "fresh";
    CreatePreallocatedFile(fresh, kFileSize);
    DataChunkFileReader reader(fresh);
    DataChunk out;
    EXPECT_TRUE(Contains(ErrorOf([&] { reader.GetChunk(out, 16, {}); }), "no valid header"));
    {
        DataChunkFileAppender appender(fresh, false, kFileSize);
        ASSERT_TRUE(appender.Append(chunks_[0]));
    }
    reader.GetChunk(out, 16, {"a", "b", "c"});
    EXPECT_EQ(out, chunks_[0]);
}

// A reader kept open while its file is recycled in place: records of the new
// generation are read (the header is read again), and an old record at the
// same place, even intact, is never taken for the new one.
TEST_F(DataChunkFileReaderTest, AKeptReaderFollowsTheRecyclingOfItsFile) {
    DataChunkFileReader reader(path_);
    DataChunk out;
    reader.GetChunk(out, offsets_[1], {}, TimePoint::FromSeconds(2), chunks_[1].GetSizeOnFile());
    EXPECT_EQ(out.GetData(), chunks_[1].GetData());

    // The new content has records of the old sizes at the old offsets.
    const std::vector<DataChunk> recycled = {
        MakeChunk(11, 1500, {{"a", "x"}, {"b", "yy"}, {"c", ""}}), MakeChunk(12, 0)};
    {
        DataChunkFileAppender appender(path_, false, kFileSize);
        for (const DataChunk& chunk : recycled) {
            ASSERT_TRUE(appender.Append(chunk));
        }
    }
    ASSERT_EQ(OffsetsOf(recycled)[1], offsets_[1]);
    reader.GetChunk(out, offsets_[1], {}, TimePoint::FromSeconds(12), recycled[1].GetSizeOnFile());
    EXPECT_EQ(out.GetTimePoint(), TimePoint::FromSeconds(12));
    EXPECT_EQ(out.GetData(), recycled[1].GetData());
    EXPECT_TRUE(Contains(ErrorOf([&] {
                             reader.GetChunk(out, offsets_[1], {}, TimePoint::FromSeconds(2),
                                             chunks_[1].GetSizeOnFile());
                         }),
                         "is not the expected"));
    // Behind the new tail lies no record of the new content.
    EXPECT_TRUE(Contains(ErrorOf([&] {
                             reader.GetChunk(out, offsets_[2], {}, TimePoint::FromSeconds(3),
                                             chunks_[2].GetSizeOnFile());
                         }),
                         "bad record at offset"));
}

}  // namespace
}  // namespace loopstore::test
