#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "Storage/Server/FileSystem/OpenChunkFilesRegistry.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"
#include "tests/Support/FaultInjectionEnv.h"
#include "tests/Support/OpenFiles.h"
#include "tests/Support/TempDir.h"

using loopstore::test::At;
using loopstore::test::FaultInjectionEnv;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
using loopstore::test::OpenFilesUnder;
using loopstore::test::PayloadFor;
using loopstore::test::ScopedEnv;
using loopstore::test::TempDir;
using loopstore::test::TrackIo;

namespace {

// Chunks of one size: a record takes 48 header bytes, 23 bytes of the
// "camera" property block and the payload, so a file of kFileSize holds
// exactly kChunksPerFile of them and chunk i of a file always lies at the
// same offset, whatever generation the file is in.
constexpr size_t kPayload = 1000;
constexpr unsigned long kRecordSize = 48 + 23 + kPayload;

unsigned long FileSize(unsigned long chunksPerFile) {
    return Moreld::File::ChunkFileHeader::kSize + chunksPerFile * kRecordSize;
}

// Appends chunks [from, to) of one second each, then drains the writer: every
// chunk is in its file and indexed when this returns. The cache is emptied,
// so that the reads that follow come from the files.
void Write(TrackIo& io, int from, int to) {
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = from; i < to; ++i) {
            Protocol::Chunk chunk = MakeChunkMessage(i * kSecond, kSecond, kPayload);
            writer.Append(chunk);
        }
    }
    io.Cache().Clear();
}

FileSystem::Chunk Indexed(TrackIo& io, int i) {
    IFileSystemManager::ChunkHandle handle =
        io.Manager().Lookup(Moreld::Time::TimePoint::FromNanoseconds(i * kSecond));
    if (!handle)
        throw std::runtime_error("chunk " + std::to_string(i) + " is not indexed");
    return handle->GetChunk();
}

// Reads chunk i through `reader` and checks it is the one written.
void ExpectChunk(ChunkCacheTrackReader& reader, int i) {
    Protocol::KeyList keys;
    keys.add_keys("camera");
    Protocol::Chunk out;
    bool found = false;
    reader.GetChunk(At(i * kSecond + 1), keys, out, found);
    ASSERT_TRUE(found) << i;
    EXPECT_EQ(out.timepoint().nanoseconds(), i * kSecond);
    EXPECT_TRUE(out.data() == PayloadFor(i * kSecond, kPayload)) << "payload of chunk " << i;
    ASSERT_EQ(out.properties_size(), 1);
    EXPECT_EQ(out.properties(0).value(), "cam-" + std::to_string(i * kSecond % 7));
}

}  // namespace

// The reader keeps file 1 open with the header it read; the writer then
// recycles that file and puts chunk 5 where chunk 1 was. The kept file must
// give chunk 5, and chunk 1 is no longer found.
TEST(TrackReaderOpenFiles, AFileRecycledBetweenTwoReadsGivesItsNewChunks) {
    TrackIo io(21, 2, FileSize(4));
    Write(io, 0, 8);
    ChunkCacheTrackReader reader(io.TrackId(), io.Manager(), io.Cache());
    reader.SetTrackDirectory(io.Root());
    const FileSystem::Chunk before = Indexed(io, 1);
    ExpectChunk(reader, 1);
    ExpectChunk(reader, 6);

    Write(io, 8, 10);
    const FileSystem::Chunk after = Indexed(io, 9);
    ASSERT_EQ(after.location.file, before.location.file);
    ASSERT_EQ(after.location.offset, before.location.offset);
    ExpectChunk(reader, 9);
    ExpectChunk(reader, 8);
    Protocol::Chunk out;
    bool found = true;
    reader.GetChunk(At(1 * kSecond), Protocol::KeyList(), out, found);
    EXPECT_FALSE(found);

    // Recycled once more, both files, each kept open by the reader.
    Write(io, 10, 16);
    for (int i = 8; i < 16; ++i)
        ExpectChunk(reader, i);
    EXPECT_TRUE(io.Manager().CheckInvariant());
}

// One-chunk files, two more than a track keeps open: reading as many as it
// keeps over and over opens each once; one more lets the least recently used
// go; a read error closes the file it came from, passes to the caller as the
// file reported it, and the next read opens the file again.
TEST(TrackReaderOpenFiles, KeepsAFewFilesOpenAndStartsAfreshAfterAReadError) {
    constexpr int kKept = static_cast<int>(OpenChunkFiles::kDefaultCapacity);
    TrackIo io(22, kKept + 2, FileSize(1));
    Write(io, 0, kKept + 2);
    TempDir scratch;
    FaultInjectionEnv env(scratch / "journal", scratch / "trash");
    ScopedEnv installed(&env);
    auto opens = [&] { return env.Calls(FaultInjectionEnv::Op::kOpen); };
    const uint64_t start = opens();
    {
        ChunkCacheTrackReader reader(io.TrackId(), io.Manager(), io.Cache());
        reader.SetTrackDirectory(io.Root());
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < kKept; ++i)
                ExpectChunk(reader, i);
        }
        EXPECT_EQ(opens() - start, uint64_t{kKept});
        EXPECT_EQ(OpenFilesUnder(io.Root()), kKept);

        // One file more than there are places, in turn: each new one lets the
        // least recently used go, and from then on every read opens.
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i <= kKept; ++i) {
                ExpectChunk(reader, i);
                EXPECT_LE(OpenFilesUnder(io.Root()), kKept);
            }
        }
        EXPECT_EQ(opens() - start, kKept + 1u + (kKept + 1u));

        // Chunk kKept was read last: its file is kept, and the read fails.
        const FileSystem::Chunk chunk = Indexed(io, kKept);
        const std::string name = chunk.location.file.GetAbsoluteFileName(io.Root(), false);
        env.FailAt(FaultInjectionEnv::Op::kRead, 1, EIO);
        Protocol::Chunk out;
        bool found = false;
        try {
            reader.GetChunk(At(kKept * kSecond), Protocol::KeyList(), out, found);
            ADD_FAILURE() << "a failed read returned a chunk";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), "Cannot read chunk file " + name + " at offset " +
                                                 std::to_string(chunk.location.offset) +
                                                 ": Input/output error");
        }
        EXPECT_EQ(OpenFilesUnder(io.Root()), kKept - 1);
        ExpectChunk(reader, kKept);
        EXPECT_EQ(opens() - start, kKept + 1u + (kKept + 1u) + 1u);
    }
    EXPECT_EQ(OpenFilesUnder(io.Root()), 0);
}

// Two readers of one track share its open files: what one opened and whose
// header it read, the other reads with one system call per record. When the
// writer then recycles a shared file, the generation one reader knew does not
// make the other take the file's new records for old ones or the reverse.
TEST(TrackReaderOpenFiles, ReadersOfATrackShareItsFilesAcrossARecycling) {
    TrackIo io(23, 2, FileSize(4));
    Write(io, 0, 8);
    TempDir scratch;
    FaultInjectionEnv env(scratch / "journal", scratch / "trash");
    ScopedEnv installed(&env);
    OpenChunkFilesRegistry registry;
    auto makeReader = [&] {
        auto reader =
            std::make_unique<ChunkCacheTrackReader>(io.TrackId(), io.Manager(), io.Cache());
        reader->SetTrackDirectory(io.Root());
        reader->ShareOpenFiles(registry.For(io.TrackId()));
        return reader;
    };
    std::unique_ptr<ChunkCacheTrackReader> first = makeReader();
    std::unique_ptr<ChunkCacheTrackReader> second = makeReader();
    auto opens = [&] { return env.Calls(FaultInjectionEnv::Op::kOpen); };
    auto reads = [&] { return env.Calls(FaultInjectionEnv::Op::kRead); };

    ExpectChunk(*first, 1);
    ExpectChunk(*first, 6);
    const uint64_t opened = opens();
    const uint64_t read = reads();
    ExpectChunk(*second, 2);
    ExpectChunk(*second, 5);
    EXPECT_EQ(opens(), opened);
    EXPECT_EQ(reads() - read, 2u) << "one read per record, no header";
    EXPECT_EQ(OpenFilesUnder(io.Root()), 2);

    // Chunk 9 now lies where chunk 1 was, in a new generation of the file.
    const FileSystem::Chunk before = Indexed(io, 1);
    Write(io, 8, 10);
    const uint64_t openedByWriter = opens();
    const FileSystem::Chunk after = Indexed(io, 9);
    ASSERT_EQ(after.location.file, before.location.file);
    ASSERT_EQ(after.location.offset, before.location.offset);
    ExpectChunk(*second, 9);
    ExpectChunk(*first, 8);
    ExpectChunk(*first, 9);
    ExpectChunk(*second, 6);
    Protocol::Chunk out;
    bool found = true;
    first->GetChunk(At(1 * kSecond), Protocol::KeyList(), out, found);
    EXPECT_FALSE(found);
    EXPECT_EQ(opens(), openedByWriter);

    // The files close with the last reader; the next reader starts afresh.
    first.reset();
    EXPECT_EQ(OpenFilesUnder(io.Root()), 2);
    second.reset();
    EXPECT_EQ(OpenFilesUnder(io.Root()), 0);
    EXPECT_EQ(registry.For(io.TrackId())->Size(), 0u);
}
