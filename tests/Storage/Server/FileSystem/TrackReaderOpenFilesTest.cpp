#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"
#include "tests/Support/FaultInjectionEnv.h"
#include "tests/Support/TempDir.h"

using loopstore::test::At;
using loopstore::test::FaultInjectionEnv;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
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

// Descriptors of this process open on files under `root`.
int OpenFilesUnder(const std::string& root) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), error);
        if (!error && target.string().rfind(root, 0) == 0)
            ++count;
    }
    return count;
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

// Six one-chunk files: reading four of them over and over opens each once;
// a fifth closes the least recently used; a read error closes the file it
// came from, passes to the caller as the file reported it, and the next read
// opens the file again.
TEST(TrackReaderOpenFiles, KeepsAFewFilesOpenAndStartsAfreshAfterAReadError) {
    TrackIo io(22, 6, FileSize(1));
    Write(io, 0, 6);
    TempDir scratch;
    FaultInjectionEnv env(scratch / "journal", scratch / "trash");
    ScopedEnv installed(&env);
    auto opens = [&] { return env.Calls(FaultInjectionEnv::Op::kOpen); };
    const uint64_t start = opens();
    {
        ChunkCacheTrackReader reader(io.TrackId(), io.Manager(), io.Cache());
        reader.SetTrackDirectory(io.Root());
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < 4; ++i)
                ExpectChunk(reader, i);
        }
        EXPECT_EQ(opens() - start, 4u);
        EXPECT_EQ(OpenFilesUnder(io.Root()), 4);

        // Five files in turn through four places: the fifth closes the least
        // recently used, and from then on every read opens.
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i < 5; ++i) {
                ExpectChunk(reader, i);
                EXPECT_LE(OpenFilesUnder(io.Root()), 4);
            }
        }
        EXPECT_EQ(opens() - start, 4u + 1u + 5u);

        // Chunk 4 was read last: its file is kept, and the read fails.
        const FileSystem::Chunk chunk = Indexed(io, 4);
        const std::string name = chunk.location.file.GetAbsoluteFileName(io.Root(), false);
        env.FailAt(FaultInjectionEnv::Op::kRead, 1, EIO);
        Protocol::Chunk out;
        bool found = false;
        try {
            reader.GetChunk(At(4 * kSecond), Protocol::KeyList(), out, found);
            ADD_FAILURE() << "a failed read returned a chunk";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), "Cannot read chunk file " + name + " at offset " +
                                                 std::to_string(chunk.location.offset) +
                                                 ": Input/output error");
        }
        EXPECT_EQ(OpenFilesUnder(io.Root()), 3);
        ExpectChunk(reader, 4);
        EXPECT_EQ(opens() - start, 4u + 1u + 5u + 1u);
    }
    EXPECT_EQ(OpenFilesUnder(io.Root()), 0);
}
