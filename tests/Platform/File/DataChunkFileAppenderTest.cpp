#include "Platform/File/DataChunkFileAppender.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <vector>

#include "Platform/File/DataChunkFileReader.h"
#include "tests/Platform/File/ChunkFileTestUtil.h"
#include "tests/Support/FaultInjectionEnv.h"
#include "tests/Support/TempDir.h"

using Moreld::File::DataChunkFileAppender;
using Moreld::File::DataChunkFileReader;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

namespace loopstore::test {
namespace {

constexpr uint64_t kFileSize = 1 << 20;

std::set<TimePoint> SecondsSet(std::initializer_list<int64_t> seconds) {
    std::set<TimePoint> result;
    for (int64_t s : seconds) {
        result.insert(TimePoint::FromSeconds(s));
    }
    return result;
}

std::set<TimePoint> TimePointsOnDisk(const std::string& path, uint64_t fileSize = kFileSize) {
    return DataChunkFileAppender(path, true, fileSize).GetTimePoints();
}

// Writes chunks at 1..count seconds into a fresh generation; returns them.
std::vector<DataChunk> WriteChunks(const std::string& path, int count, size_t payloadSize) {
    std::vector<DataChunk> chunks;
    DataChunkFileAppender appender(path, false, kFileSize);
    for (int i = 1; i <= count; ++i) {
        chunks.push_back(MakeChunk(i, payloadSize, {{"n", std::to_string(i)}}));
        EXPECT_TRUE(appender.Append(chunks.back()));
    }
    return chunks;
}

TEST(DataChunkFileAppender, OffsetsFollowTheSizesOnFileFromTheFirstRecord) {
    TempDir dir;
    const std::string path = dir / "00000001";
    CreatePreallocatedFile(path, kFileSize);
    std::vector<DataChunk> chunks = {MakeChunk(1, 1000), MakeChunk(2, 0, {{"k", "v"}}),
                                     MakeChunk(3, 4096, {{"a", ""}, {"b", "xyz"}})};
    DataChunkFileAppender appender(path, false, kFileSize);
    EXPECT_EQ(appender.GetFilename(), path);
    EXPECT_EQ(appender.GetTail(), 16u);
    EXPECT_EQ(appender.GetGeneration(), 0u) << "a zero-filled file has no generation";
    const std::vector<uint64_t> offsets = OffsetsOf(chunks);
    for (size_t i = 0; i < chunks.size(); ++i) {
        EXPECT_EQ(appender.GetTail(), offsets[i]);
        EXPECT_TRUE(appender.Append(chunks[i], offsets[i]));
    }
    EXPECT_EQ(appender.GetTail(), offsets.back() + chunks.back().GetSizeOnFile());
    EXPECT_NE(appender.GetGeneration(), 0u);
    EXPECT_EQ(appender.GetTimePoints(), SecondsSet({1, 2, 3}));
}

TEST(DataChunkFileAppender, RefusesRecordsThatDoNotFitAndWritesNothing) {
    TempDir dir;
    const DataChunk chunk = MakeChunk(1, 500);
    const uint64_t exact = 16 + 2 * chunk.GetSizeOnFile();
    const std::string path = dir / "exact";
    CreatePreallocatedFile(path, exact + 100);
    {
        // The caller's size wins when smaller than the real one.
        DataChunkFileAppender appender(path, false, exact);
        EXPECT_EQ(appender.GetCapacity(), exact);
        EXPECT_TRUE(appender.Append(chunk));
        EXPECT_TRUE(appender.Append(MakeChunk(2, 500)));
        EXPECT_EQ(appender.GetTail(), exact);
        const std::string before = ReadWholeFile(path);
        EXPECT_FALSE(appender.Append(MakeChunk(3, 0)));
        EXPECT_EQ(ReadWholeFile(path), before);
        EXPECT_EQ(appender.GetTimePoints(), SecondsSet({1, 2}));
    }
    {
        // The real size wins when smaller than the caller's: the file never grows.
        const std::string small = dir / "small";
        CreatePreallocatedFile(small, 16 + chunk.GetSizeOnFile() - 1);
        DataChunkFileAppender appender(small, false, kFileSize);
        const std::string before = ReadWholeFile(small);
        EXPECT_FALSE(appender.Append(chunk));
        EXPECT_FALSE(appender.Append(chunk, 16));
        EXPECT_EQ(ReadWholeFile(small), before) << "a refused record must not even write a header";
        EXPECT_EQ(appender.GetGeneration(), 0u);
    }
}

TEST(DataChunkFileAppender, OpeningAndScanningWritesNothing) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    WriteChunks(path, 3, 2000);
    const std::string before = ReadWholeFile(path);
    for (bool keepContent : {false, true}) {
        DataChunkFileAppender appender(path, keepContent, kFileSize);
        appender.GetTimePoints();
        appender.GetTail();
        appender.Sync();
    }
    EXPECT_EQ(ReadWholeFile(path), before);
}

TEST(DataChunkFileAppender, TornLastRecordIsNotCountedAndGetsOverwritten) {
    TempDir dir;
    // 3 MiB payloads cross the scanner's read buffer several times.
    for (size_t payloadSize : {size_t{700}, size_t{3 << 20}}) {
        const uint64_t fileSize = 16 + 5 * (payloadSize + 100);
        enum Damage { kFlippedPayloadByte, kZeroedEnd, kFlippedHeaderByte };
        for (Damage damage : {kFlippedPayloadByte, kZeroedEnd, kFlippedHeaderByte}) {
            SCOPED_TRACE(testing::Message() << "payload " << payloadSize << ", damage " << damage);
            const std::string path = dir / "torn";
            CreatePreallocatedFile(path, fileSize);
            std::vector<DataChunk> chunks;
            {
                DataChunkFileAppender appender(path, false, fileSize);
                for (int i = 1; i <= 3; ++i) {
                    chunks.push_back(MakeChunk(i, payloadSize));
                    ASSERT_TRUE(appender.Append(chunks.back()));
                }
            }
            const uint64_t last = OffsetsOf(chunks)[2];
            const uint64_t end = last + chunks[2].GetSizeOnFile();
            if (damage == kFlippedPayloadByte) {
                FlipByteAt(path, end - payloadSize / 2 - 1);
            } else if (damage == kZeroedEnd) {
                OverwriteAt(path, end - 100, std::string(100, '\0'));
            } else {
                FlipByteAt(path, last + 30);  // inside the time point
            }

            // A "restart": a new appender continues where the valid records end.
            DataChunkFileAppender appender(path, true, fileSize);
            EXPECT_EQ(appender.GetTimePoints(), SecondsSet({1, 2}));
            EXPECT_EQ(appender.GetTail(), last);
            DataChunkFileReader reader(path);
            DataChunk out;
            EXPECT_THROW(reader.GetChunk(out, last, {}), std::runtime_error);

            const DataChunk replacement = MakeChunk(9, 10);
            ASSERT_TRUE(appender.Append(replacement));
            EXPECT_EQ(appender.GetTimePoints(), SecondsSet({1, 2, 9}));
            reader.GetChunk(out, last, {});
            EXPECT_EQ(out, replacement);
            EXPECT_EQ(TimePointsOnDisk(path, fileSize), SecondsSet({1, 2, 9}));
        }
    }
}

TEST(DataChunkFileAppender, OverwritingADamagedRecordDoesNotReviveTheOnesAfterIt) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    const std::vector<DataChunk> chunks = WriteChunks(path, 3, 200);
    const std::vector<uint64_t> offsets = OffsetsOf(chunks);
    FlipByteAt(path, offsets[1] + 100);  // record 2 damaged, record 3 intact
    {
        DataChunkFileAppender appender(path, true, kFileSize);
        // Same size as record 2: the new record ends where record 3 starts.
        ASSERT_TRUE(appender.Append(MakeChunk(8, 200, {{"n", "8"}})));
        EXPECT_EQ(appender.GetTail(), offsets[2]);
    }
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({1, 8}));
}

TEST(DataChunkFileAppender, GarbageOrZeroedHeaderHoldsNoRecords) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    std::string garbage(kFileSize, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = static_cast<char>((i * 2654435761u) >> 13);
    }
    OverwriteAt(path, 0, garbage);
    {
        DataChunkFileAppender appender(path, true, kFileSize);
        EXPECT_TRUE(appender.GetTimePoints().empty());
        EXPECT_EQ(appender.GetTail(), 16u);
        EXPECT_EQ(appender.GetGeneration(), 0u);
    }

    WriteChunks(path, 3, 100);
    const uint64_t oldGeneration = DataChunkFileAppender(path, true, kFileSize).GetGeneration();
    OverwriteAt(path, 0, std::string(16, '\0'));
    DataChunkFileAppender appender(path, true, kFileSize);
    EXPECT_TRUE(appender.GetTimePoints().empty()) << "records without a valid header are lost";
    DataChunkFileReader reader(path);
    DataChunk out;
    EXPECT_THROW(reader.GetChunk(out, 16, {}), std::runtime_error);

    // The next generation is drawn at random, so the old records stay dead
    // even where the new block is shorter.
    ASSERT_TRUE(appender.Append(MakeChunk(7, 10)));
    EXPECT_NE(appender.GetGeneration(), 0u);
    EXPECT_NE(appender.GetGeneration(), oldGeneration + 1);
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({7}));
    reader.GetChunk(out, 16, {});  // a failed read leaves the reader usable
    EXPECT_EQ(out.GetTimePoint(), TimePoint::FromSeconds(7));
}

TEST(DataChunkFileAppender, NewGenerationHidesEveryOldRecord) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    const std::vector<DataChunk> old = WriteChunks(path, 5, 300);
    const std::vector<uint64_t> offsets = OffsetsOf(old);
    const uint64_t generation = DataChunkFileAppender(path, true, kFileSize).GetGeneration();

    // Same sizes: old records 3 to 5 stay intact right after the new tail.
    {
        DataChunkFileAppender appender(path, false, kFileSize);
        EXPECT_EQ(appender.GetTimePoints().size(), 5u) << "before any append: what the disk holds";
        ASSERT_TRUE(appender.Append(MakeChunk(11, 300, {{"n", "1"}})));
        ASSERT_TRUE(appender.Append(MakeChunk(12, 300, {{"n", "2"}})));
        EXPECT_EQ(appender.GetGeneration(), generation + 1);
        EXPECT_EQ(appender.GetTimePoints(), SecondsSet({11, 12}));
    }
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({11, 12}));
    DataChunkFileReader reader(path);
    DataChunk out;
    try {
        reader.GetChunk(out, offsets[3], {});
        ADD_FAILURE() << "an old generation's record was read";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("generation"), std::string::npos) << e.what();
    }

    // Offset 16 begins a new generation even when the content was kept.
    {
        DataChunkFileAppender appender(path, true, kFileSize);
        ASSERT_TRUE(appender.Append(MakeChunk(21, 50), 16));
        EXPECT_EQ(appender.GetGeneration(), generation + 2);
    }
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({21}));
}

TEST(DataChunkFileAppender, AppendAtOffsetMustBeTheTailOrTheFirstRecord) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    const std::vector<DataChunk> chunks = WriteChunks(path, 2, 100);
    const uint64_t tail = 16 + chunks[0].GetSizeOnFile() + chunks[1].GetSizeOnFile();
    {
        // Stale content: the only place to write is the first record.
        DataChunkFileAppender appender(path, false, kFileSize);
        const std::string before = ReadWholeFile(path);
        EXPECT_FALSE(appender.Append(MakeChunk(3, 100), tail));
        EXPECT_EQ(ReadWholeFile(path), before);
    }
    DataChunkFileAppender appender(path, true, kFileSize);
    const std::string before = ReadWholeFile(path);
    EXPECT_FALSE(appender.Append(MakeChunk(3, 100), tail - 1));
    EXPECT_FALSE(appender.Append(MakeChunk(3, 100), tail + 1));
    EXPECT_FALSE(appender.Append(MakeChunk(3, 100), 0));
    EXPECT_EQ(ReadWholeFile(path), before);
    EXPECT_TRUE(appender.Append(MakeChunk(3, 100), tail));
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({1, 2, 3}));
}

TEST(DataChunkFileAppender, AppendAtTheEndOfAnEarlierRecordCutsTheRecordsAfterIt) {
    TempDir dir;
    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    const std::vector<DataChunk> chunks = WriteChunks(path, 3, 100);
    const uint64_t firstEnd = 16 + chunks[0].GetSizeOnFile();
    DataChunkFileAppender appender(path, true, kFileSize);
    // Inside a record: refused, nothing written.
    const std::string before = ReadWholeFile(path);
    EXPECT_FALSE(appender.Append(MakeChunk(4, 100), firstEnd + 10));
    EXPECT_EQ(ReadWholeFile(path), before);
    EXPECT_EQ(appender.GetTimePoints(), SecondsSet({1, 2, 3}));
    // At the end of the first record: records 2 and 3 leave the generation,
    // even where the new record ends right where an old one began.
    const DataChunk replacement = MakeChunk(4, chunks[1].GetDataSize(), {{"n", "2"}});
    ASSERT_EQ(replacement.GetSizeOnFile(), chunks[1].GetSizeOnFile());
    EXPECT_TRUE(appender.Append(replacement, firstEnd));
    EXPECT_EQ(appender.GetTimePoints(), SecondsSet({1, 4}));
    EXPECT_EQ(appender.GetTail(), firstEnd + replacement.GetSizeOnFile());
    EXPECT_TRUE(appender.Append(MakeChunk(5, 100), appender.GetTail()));
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({1, 4, 5}));
}

TEST(DataChunkFileAppender, OpensOnlyExistingFilesAndKeepsTheNoFlushFlag) {
    TempDir dir;
    try {
        DataChunkFileAppender appender(dir / "missing", false, kFileSize);
        ADD_FAILURE() << "opened a missing file";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Cannot open chunk file " + (dir / "missing") + ": No such file or directory");
    }

    const std::string path = dir / "f";
    CreatePreallocatedFile(path, kFileSize);
    {
        DataChunkFileAppender appender(path, false, kFileSize);
        EXPECT_FALSE(appender.GetNoFlush());
        appender.SetNoFlush(true);
        EXPECT_TRUE(appender.GetNoFlush());
        ASSERT_TRUE(appender.Append(MakeChunk(1, 100)));
    }
    // Without the final flush the data is still in the page cache.
    EXPECT_EQ(TimePointsOnDisk(path), SecondsSet({1}));
}

// A finished file is synced once: closing it right after Sync costs no
// second fdatasync, but a record written after the Sync is still made
// durable at close, and a file only read is never synced.
TEST(DataChunkFileAppender, ClosingSyncsOnlyWhatWasWrittenSinceTheLastSync) {
    TempDir dir;
    FaultInjectionEnv env(dir / "journal", dir / "trash");
    const std::string path = dir / "00000001";
    CreatePreallocatedFile(path, kFileSize);
    ScopedEnv scoped(&env);
    const auto syncs = [&] { return env.Calls(FaultInjectionEnv::Op::kSync); };
    {
        DataChunkFileAppender appender(path, false, kFileSize);
        ASSERT_TRUE(appender.Append(MakeChunk(1, 100)));
        appender.Sync();
        EXPECT_EQ(syncs(), 1u);
    }
    EXPECT_EQ(syncs(), 1u) << "closed right after its sync";
    {
        DataChunkFileAppender appender(path, true, kFileSize);
        ASSERT_TRUE(appender.Append(MakeChunk(2, 100)));
        appender.Sync();
        ASSERT_TRUE(appender.Append(MakeChunk(3, 100)));
    }
    EXPECT_EQ(syncs(), 3u) << "the record after the sync is made durable at close";
    { EXPECT_EQ(DataChunkFileAppender(path, true, kFileSize).GetTimePoints().size(), 3u); }
    EXPECT_EQ(syncs(), 3u);
}

}  // namespace
}  // namespace loopstore::test
