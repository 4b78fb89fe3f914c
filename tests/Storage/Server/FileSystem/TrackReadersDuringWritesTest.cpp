#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "Storage/Server/FileSystem/OpenChunkFiles.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"

using loopstore::test::At;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
using loopstore::test::PayloadFor;
using loopstore::test::TrackIo;

namespace {

// Walks the track from its beginning with NextTimePoint and reads every chunk
// it meets; returns how many it read. A chunk recycled under the reader's feet
// may be gone (not found, or refused by the file's check); what is returned
// must be the chunk asked for.
size_t WalkOnce(ChunkCacheTrackReader& reader, LoopRecordingFileManager& manager) {
    Protocol::TimePoint cursor, next;
    cursor.set_nanoseconds(manager.GetBeginningOfTrack().ToNanoseconds() - 1);
    size_t read = 0;
    bool found = true;
    while (found) {
        reader.NextTimePoint(cursor, next, found);
        if (!found)
            break;
        Protocol::Chunk out;
        bool got = false;
        try {
            reader.GetChunk(next, Protocol::KeyList(), out, got);
        } catch (const std::runtime_error&) {
            got = false;  // its file was rewritten between the lookup and the read
        }
        if (got) {
            EXPECT_EQ(out.timepoint().nanoseconds(), next.nanoseconds());
            EXPECT_TRUE(out.data() == PayloadFor(next.nanoseconds(), out.data().size()));
            ++read;
        }
        cursor = next;
    }
    return read;
}

// Readers walking the track while the writer loops it; `shared` (may be
// null) are open files they all read through.
void ReadWhileTheTrackLoops(int readerCount, std::shared_ptr<OpenChunkFiles> shared) {
    TrackIo io(31, 4, 32 * 1024);
    std::latch start(readerCount + 1);
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    std::atomic<size_t> totalRead{0};
    for (int r = 0; r < readerCount; ++r) {
        readers.emplace_back([&] {
            ChunkCacheTrackReader reader(io.TrackId(), io.Manager(), io.Cache());
            reader.SetTrackDirectory(io.Root());
            if (shared)
                reader.ShareOpenFiles(shared);
            start.arrive_and_wait();
            while (!done.load())
                totalRead += WalkOnce(reader, io.Manager());
            totalRead += WalkOnce(reader, io.Manager());
        });
    }
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        start.arrive_and_wait();
        for (int i = 0; i < 1500; ++i) {
            Protocol::Chunk chunk = MakeChunkMessage(i * kSecond, kSecond, 500 + (i * 37) % 3000);
            writer.Append(chunk);
        }
    }
    done = true;
    for (std::thread& t : readers)
        t.join();
    EXPECT_GT(totalRead.load(), 0u);
    EXPECT_TRUE(io.Manager().CheckInvariant());
}

}  // namespace

TEST(TrackReadersDuringWrites, ReadersSeeOnlyWholeChunksWhileTheTrackLoops) {
    ReadWhileTheTrackLoops(2, nullptr);
}

// Three readers share two places for the track's four files: files are let
// go, reopened and their generations re-read under the readers' feet.
TEST(TrackReadersDuringWrites, ReadersSharingFewOpenFilesSeeOnlyWholeChunks) {
    ReadWhileTheTrackLoops(3, std::make_shared<OpenChunkFiles>(2));
}
