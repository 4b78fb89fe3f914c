#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <limits>
#include <map>
#include <random>

#include "Platform/Logging/LogCapture.h"
#include "Platform/Plexa/Converter.h"
#include "Platform/Tools/SyncPoint.h"
#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/ThrownText.h"

using loopstore::test::At;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
using loopstore::test::PayloadFor;
using loopstore::test::ThrownText;
using loopstore::test::TrackIo;
using Moreld::Time::TimePoint;
using tav::mr::logging::LogCapture;

namespace {

// Reads back every chunk the index holds and checks it against what was
// written; walks the track both ways. Returns the number of chunks read.
size_t VerifyTrack(TrackIo& io, const std::map<int64_t, size_t>& written) {
    ChunkCacheTrackReader reader(io.TrackId(), io.Manager(), io.Cache());
    reader.SetTrackDirectory(io.Root());
    Protocol::KeyList keys;
    keys.add_keys("camera");
    size_t count = 0;
    std::vector<int64_t> forward;
    for (const auto& [key, block] : io.Manager().GetBlocks()) {
        for (const auto& [tp, chunk] : block.GetChunks()) {
            const int64_t ns = tp.ToNanoseconds();
            Protocol::Chunk out;
            bool found = false;
            reader.GetChunk(At(ns), keys, out, found);
            EXPECT_TRUE(found) << tp;
            auto it = written.find(ns);
            if (it == written.end()) {
                ADD_FAILURE() << "indexed chunk never written at " << tp;
                continue;
            }
            EXPECT_EQ(out.timepoint().nanoseconds(), ns);
            EXPECT_TRUE(out.data() == PayloadFor(ns, it->second)) << "payload differs at " << tp;
            EXPECT_EQ(out.properties_size(), 1);
            forward.push_back(ns);
            ++count;
        }
    }
    // NextTimePoint from before the track visits every chunk in order, and
    // PreviousTimePoint from after it visits them back.
    if (!forward.empty()) {
        Protocol::TimePoint cursor = At(forward.front() - 1), next;
        bool found = true;
        for (int64_t expected : forward) {
            reader.NextTimePoint(cursor, next, found);
            EXPECT_TRUE(found);
            EXPECT_EQ(next.nanoseconds(), expected);
            cursor = next;
        }
        reader.NextTimePoint(cursor, next, found);
        EXPECT_FALSE(found);
        cursor = At(io.Manager().GetEndOfTrack().ToNanoseconds());
        for (auto it = forward.rbegin(); it != forward.rend(); ++it) {
            reader.PreviousTimePoint(cursor, next, found);
            EXPECT_TRUE(found);
            EXPECT_EQ(next.nanoseconds(), *it);
            cursor = next;
        }
    }
    return count;
}

}  // namespace

TEST(TrackWriterReader, LoopsSeveralTimesAndReadsEverythingBackFromCacheAndFiles) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    TrackIo io(12, 4, 64 * 1024);
    std::map<int64_t, size_t> written;
    int64_t t = 5 * kSecond;
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 2000; ++i) {
            const size_t size = std::uniform_int_distribution<size_t>(1, 6000)(random);
            const int64_t duration = std::uniform_int_distribution<int64_t>(1, kSecond)(random);
            Protocol::Chunk chunk = MakeChunkMessage(t, duration, size);
            writer.Append(chunk);
            written[t] = size;
            t += duration + (i % 100 == 0 ? 3 * kSecond : 0);  // a few gaps
        }
    }
    // 2000 chunks of ~3 KB into 256 KB of files: the track looped many times.
    size_t first = VerifyTrack(io, written);
    EXPECT_GT(first, 20u);
    EXPECT_LT(first, 2000u);
    EXPECT_TRUE(io.Manager().CheckInvariant());
    EXPECT_FALSE(io.Manager().IsActive());

    // After a restart the same chunks come from the files alone.
    io.Restart();
    EXPECT_EQ(VerifyTrack(io, written), first);

    // A new writer continues the half-full last file, and recording goes on.
    // The last file may lack room for one more record (a few runs in a
    // hundred): then the writer rightly opens the next file instead.
    const Moreld::Time::TimePoint lastBlock = io.Manager().GetBlocks().rbegin()->first;
    const int64_t firstNew = t;
    LogCapture log("LoopRecordingFileTrackWriter");
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 3; ++i) {
            Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, 100);
            writer.Append(chunk);
            written[t] = 100;
            t += kSecond;
        }
    }
    const auto blocks = io.Manager().GetBlocks();
    const bool continued =
        std::prev(blocks.upper_bound(Moreld::Time::TimePoint::FromNanoseconds(firstNew)))->first ==
        lastBlock;
    EXPECT_EQ(continued, log.Contains("Appender on existing file"));
    io.Restart();
    VerifyTrack(io, written);
}

// The payload the host hands over is the one the cache keeps and the file
// receives: moved, never copied. Under a budget smaller than its usual bound
// the writer's cache takes the budget's bound, and recording goes on one
// chunk at a time.
TEST(TrackWriterReader, PayloadsAreNotCopiedAndTheBudgetBoundsTheWriter) {
    TrackIo io(13, 4, 64 * 1024);
    io.Budget().SetLimit(30000);
    std::map<int64_t, size_t> written;
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        Protocol::Chunk big = MakeChunkMessage(5 * kSecond, kSecond, 40000);
        EXPECT_NE(ThrownText([&] { writer.Append(big); }).find("max cache size 30000"),
                  std::string::npos);

        Protocol::Chunk chunk = MakeChunkMessage(5 * kSecond, kSecond, 20000);
        const char* bytes = chunk.data().data();
        writer.Append(chunk);
        written[5 * kSecond] = 20000;
        EXPECT_EQ(io.Cache().GetChunk(TimePoint::FromSeconds(5))->GetData().data(), bytes);
        // Dropped chunks give their buffers back: the host's message leaves
        // with the buffer of a chunk the budget let go, room for the next.
        size_t reused = 0;
        for (int64_t s = 6; s < 16; ++s) {
            Protocol::Chunk next = MakeChunkMessage(s * kSecond, kSecond, 20000);
            writer.Append(next);
            written[s * kSecond] = 20000;
            EXPECT_LE(io.Budget().GetUsage().bytesInUse, 30000u);
            EXPECT_TRUE(next.data().empty());
            reused += next.data().capacity() >= 20000;
        }
        EXPECT_GT(reused, 0u);
    }
    EXPECT_EQ(VerifyTrack(io, written), written.size());
    EXPECT_GT(io.Budget().GetUsage().chunksDropped, 0u);
    EXPECT_EQ(io.Budget().GetUsage().bytesInUse, 0u);
}

TEST(TrackWriterReader, BadInputIsRefusedAndLosesNothingAccepted) {
    TrackIo io(3, 3, 16 * 1024);
    std::map<int64_t, size_t> written;
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        Protocol::Chunk ok = MakeChunkMessage(10 * kSecond, kSecond, 1000);
        writer.Append(ok);
        written[10 * kSecond] = 1000;

        Protocol::Chunk zero = MakeChunkMessage(20 * kSecond, 0, 10);
        EXPECT_EQ(ThrownText([&] { writer.Append(zero); }),
                  "T3: Duration must be strictly positive, you set 0.000000000s, which means you "
                  "set 0 or you set nothing");
        Protocol::Chunk negative = MakeChunkMessage(20 * kSecond, -5, 10);
        EXPECT_EQ(ThrownText([&] { writer.Append(negative); }),
                  "T3: Duration must be strictly positive, you set -0.000000005s");
        Protocol::Chunk early = MakeChunkMessage(11 * kSecond - 1, kSecond, 10);
        EXPECT_EQ(ThrownText([&] { writer.Append(early); }),
                  "T3: Chunk's timepoint " +
                      TimePoint::FromNanoseconds(11 * kSecond - 1).ToString() +
                      " is < end of track " + TimePoint::FromNanoseconds(11 * kSecond).ToString());

        writer.SetCacheSize(5000);
        Protocol::Chunk huge = MakeChunkMessage(12 * kSecond, kSecond, 6000);
        EXPECT_NE(
            ThrownText([&] { writer.Append(huge); }).find("must be lower than max cache size"),
            std::string::npos);
        writer.SetCacheSize(1 << 20);

        // Larger than a file: refused at once, the track goes on.
        Protocol::Chunk tooBig = MakeChunkMessage(13 * kSecond, kSecond, 20 * 1024);
        EXPECT_NE(ThrownText([&] { writer.Append(tooBig); }).find("cannot hold a chunk of size"),
                  std::string::npos);
        Protocol::Chunk after = MakeChunkMessage(14 * kSecond, kSecond, 500);
        writer.Append(after);
        written[14 * kSecond] = 500;
        long stored = 0;
        writer.WaitUntilStored(stored);
        EXPECT_EQ(stored, 2);
    }
    io.Restart();
    EXPECT_EQ(VerifyTrack(io, written), 2u);
}

TEST(TrackWriterReader, ChunksTheTrackCannotStoreAreRefusedAtAppend) {
    TrackIo io(14, 2, 16 * 1024);
    const int64_t last = std::numeric_limits<int64_t>::max();
    std::map<int64_t, size_t> written;
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        // Larger than a file of the track, by its payload or by a property.
        Protocol::Chunk big = MakeChunkMessage(kSecond, kSecond, 16 * 1024);
        const std::string bigText = ThrownText([&] { writer.Append(big); });
        EXPECT_NE(bigText.find("T14: Chunk at "), std::string::npos) << bigText;
        EXPECT_NE(bigText.find("files of 16384B cannot hold a chunk of size"), std::string::npos)
            << bigText;
        Protocol::Chunk heavy = MakeChunkMessage(kSecond, kSecond, 100);
        Protocol::Property* property = heavy.add_properties();
        property->set_key("heavy");
        property->set_value(std::string(20000, 'p'));
        EXPECT_NE(ThrownText([&] { writer.Append(heavy); }).find("cannot hold a chunk of size"),
                  std::string::npos);
        // Ending after the last time point there is.
        Protocol::Chunk endless = MakeChunkMessage(2 * kSecond, last, 100);
        EXPECT_NE(
            ThrownText([&] { writer.Append(endless); }).find("ends after the last time point"),
            std::string::npos);
        Protocol::Chunk late = MakeChunkMessage(last - 10, 100, 100);
        EXPECT_NE(ThrownText([&] { writer.Append(late); }).find("ends after the last time point"),
                  std::string::npos);
        // Right before the end of time: stored like any other.
        Protocol::Chunk edge = MakeChunkMessage(last - 2 * kSecond, kSecond, 100);
        writer.Append(edge);
        written[last - 2 * kSecond] = 100;
        long stored = 0;
        writer.WaitUntilStored(stored);
        EXPECT_EQ(stored, 1);
    }
    io.Restart();
    EXPECT_EQ(VerifyTrack(io, written), 1u);

    // A track without any file refuses every chunk.
    TrackIo empty(15, 0, 16 * 1024);
    LoopRecordingFileTrackWriter writer(empty.TrackId(), empty.Manager(), empty.Cache());
    Protocol::Chunk chunk = MakeChunkMessage(kSecond, kSecond, 100);
    EXPECT_EQ(ThrownText([&] { writer.Append(chunk); }),
              "You must call GrowTrack to store chunks at " +
                  TimePoint::FromNanoseconds(kSecond).ToString() + " for track 15");
}

TEST(TrackWriterReader, TheAccumulatedDurationNeverOverflows) {
    // Durations add up across chunks that a clear took away: a client can
    // make their sum pass the 64-bit range without any chunk's end doing so.
    TrackIo io(17, 3, 16 * 1024);
    const int64_t huge = 3 * (int64_t{1} << 61);
    auto record = [&](int64_t t, int64_t duration) {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        Protocol::Chunk chunk = MakeChunkMessage(t, duration, 10000);  // a file each
        std::string refused;
        try {
            writer.Append(chunk);
        } catch (const std::runtime_error& e) {
            refused = e.what();
        }
        return refused;
    };
    EXPECT_EQ(record(0, kSecond), "");
    EXPECT_EQ(record(kSecond, huge), "");
    io.Manager().Protect(1, TimePoint(), TimePoint::FromNanoseconds(1));
    io.Manager().Clear();  // the end of the track goes back to 1 s
    EXPECT_EQ(io.Manager().GetEndOfTrack().ToNanoseconds(), kSecond);
    EXPECT_NE(record(kSecond, huge).find("the accumulated duration of the track would overflow"),
              std::string::npos);
    EXPECT_EQ(record(kSecond, kSecond), "");
}

TEST(TrackWriterReader, ChunksLostAfterAppendAreReportedWithWhatWasStored) {
    TrackIo io(16, 3, 16 * 1024);
    // Files 1 and 3 lost their end after they were lent: two records of the
    // five the index plans for file 1 fit, none in file 3.
    const std::deque<ChunkFile> files = io.Manager().GetEmptyFiles();
    std::filesystem::resize_file(files[0].GetAbsoluteFileName(io.Root(), false), 2 * 3100);
    std::filesystem::resize_file(files[2].GetAbsoluteFileName(io.Root(), false), 100);
    std::map<int64_t, size_t> written;
    int64_t t = kSecond;
    // Appends up to `count` chunks; a loss is reported by WaitUntilStored or
    // by whichever later Append the flusher's pace makes it. Returns the
    // report, and adds what the writer stored to `written`.
    auto record = [&](LoopRecordingFileTrackWriter& writer, int count) {
        std::vector<int64_t> accepted;
        std::string report;
        for (int i = 0; i < count && report.empty(); ++i, t += kSecond) {
            Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, 3000);
            report = ThrownText([&] { writer.Append(chunk); });
            if (report == "<nothing thrown>") {
                report.clear();
                accepted.push_back(t);
            }
        }
        long stored = 0;
        const std::string waited = ThrownText([&] { writer.WaitUntilStored(stored); });
        if (report.empty() && waited != "<nothing thrown>")
            report = waited;
        for (long i = 0; i < stored && i < static_cast<long>(accepted.size()); ++i)
            written[accepted[i]] = 3000;
        return report;
    };
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        // Two records fit file 1; the third is lost, and the writer stores
        // nothing after a lost record: the file no longer follows the index.
        const std::string lost = record(writer, 6);
        EXPECT_NE(lost.find("chunks accepted could not be stored, the first at " +
                            TimePoint::FromNanoseconds(3 * kSecond).ToString()),
                  std::string::npos)
            << lost;
        EXPECT_NE(lost.find("this writer stored 2 chunks"), std::string::npos) << lost;
        // Reported once; later chunks are refused at once.
        Protocol::Chunk next = MakeChunkMessage(t, kSecond, 3000);
        EXPECT_NE(ThrownText([&] { writer.Append(next); }).find("the writer stopped storing"),
                  std::string::npos);
    }
    // Its close left the index naming only what the files hold.
    EXPECT_EQ(written.size(), 2u);
    EXPECT_EQ(VerifyTrack(io, written), 2u);
    EXPECT_TRUE(io.Manager().CheckInvariant());

    // A new writer goes on after the stored chunks; what it cannot store is
    // reported, never named by the index.
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        record(writer, 4);
    }
    io.Restart();
    VerifyTrack(io, written);
}

TEST(TrackWriterReader, ASecondWriterOnATrackIsRefused) {
    TrackIo io(8, 2, 16 * 1024);
    LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
    EXPECT_EQ(ThrownText([&] {
                  LoopRecordingFileTrackWriter second(io.TrackId(), io.Manager(), io.Cache());
              }),
              "Track 8 is already being written to");
}

TEST(TrackWriterReader, ReadsOutsideTheTrackFindNothing) {
    TrackIo io(5, 2, 16 * 1024);
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 3; ++i) {
            Protocol::Chunk chunk = MakeChunkMessage((10 + i) * kSecond, kSecond, 100);
            writer.Append(chunk);
        }
    }
    ChunkCacheTrackReader reader(io.TrackId(), io.Manager(), io.Cache());
    reader.SetTrackDirectory(io.Root());
    Protocol::Chunk out;
    Protocol::TimePoint next;
    bool found = true;
    reader.GetChunk(At(9 * kSecond), Protocol::KeyList(), out, found);
    EXPECT_FALSE(found);
    reader.GetChunk(At(13 * kSecond), Protocol::KeyList(), out, found);
    EXPECT_FALSE(found);
    reader.GetNextChunk(At(12 * kSecond), Protocol::KeyList(), out, found);
    EXPECT_FALSE(found);
    reader.GetPreviousChunk(At(11 * kSecond), Protocol::KeyList(), out, found);
    EXPECT_TRUE(found);
    EXPECT_EQ(out.timepoint().nanoseconds(), 10 * kSecond);
    EXPECT_EQ(out.properties_size(), 0);  // no key asked for
    bool result = true;
    reader.Wait(At(0), 1000, result);
    EXPECT_FALSE(result);
}

TEST(TrackWriterReader, RecyclingTheFileBeingWrittenSavesOnlyItsNewChunks) {
    TrackIo io(6, 2, 16 * 1024);
    std::map<int64_t, size_t> written;
    int64_t t = 0;
    auto append = [&](LoopRecordingFileTrackWriter& writer, size_t size) {
        Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, size);
        writer.Append(chunk);
        written[t] = size;
        t += kSecond;
    };
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 3; ++i)
            append(writer, 5000);  // fills file 1
        append(writer, 5000);      // file 2
        io.Cache().Stop();         // let the flusher index what it has
        io.Cache().Run();
        io.Manager().Protect(1, TimePoint(), TimePoint::FromNanoseconds(1));  // file 1 held
        // File 2 is the only one left to recycle: the index starts it over.
        for (int i = 0; i < 4; ++i)
            append(writer, 5000);
    }
    io.Restart();
    const size_t read = VerifyTrack(io, written);
    EXPECT_EQ(read, 3u + 2u);  // the protected block, and file 2 started over
}

TEST(TrackWriterReader, FilesLargerThanTheCacheDoNotStallTheWriter) {
    // 4 files of 256 KiB behind a 64 KiB cache: the cache must free chunks
    // as soon as they are written, not when their file is complete.
    TrackIo io(9, 4, 256 * 1024);
    std::map<int64_t, size_t> written;
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        writer.SetCacheSize(64 * 1024);
        for (int i = 0; i < 600; ++i) {
            Protocol::Chunk chunk = MakeChunkMessage(i * kSecond, kSecond, 8000);
            writer.Append(chunk);
            written[i * kSecond] = 8000;
        }
    }
    io.Restart();
    EXPECT_GT(VerifyTrack(io, written), 100u);
}

TEST(TrackWriterReader, AFinishedFileIsDurableBeforeTheDatabaseNamesItsChunks) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    TrackIo io(4, 3, 16 * 1024);
    std::mutex mutex;
    std::vector<std::string> events;
    auto record = [&](const char* event) {
        return [&, event] {
            std::lock_guard<std::mutex> lock(mutex);
            events.push_back(event);
        };
    };
    auto& sync = Moreld::Tools::SyncPoint::Instance();
    sync.SetCallback("DataChunkFileAppender::Sync:Done", record("sync"));
    sync.SetCallback("LoopRecordingFileTrackWriter::SaveCurrentFile:Saving", record("save"));
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 12; ++i) {  // three chunks per file: four files
            Protocol::Chunk chunk = MakeChunkMessage(i * kSecond, kSecond, 5000);
            writer.Append(chunk);
        }
    }
    sync.ClearAll();
    size_t saves = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        if (events[i] == "save") {
            ++saves;
            ASSERT_GT(i, 0u);
            EXPECT_EQ(events[i - 1], "sync") << "save " << i << " without a sync before it";
        }
    }
    EXPECT_EQ(saves, 4u);  // three finished files and the last one at close
}

TEST(TrackWriterReader, WritersTakingTurnsInOneRunSaveEachChunkOnce) {
    TrackIo io(11, 3, 64 * 1024);
    std::map<int64_t, size_t> written;
    int64_t t = 0;
    LogCapture log("LoopRecordingFileManager");
    for (int turn = 0; turn < 4; ++turn) {
        // Each writer stops inside a file that the next one continues.
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        for (int i = 0; i < 5; ++i, t += kSecond) {
            Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, 3000);
            writer.Append(chunk);
            written[t] = 3000;
        }
    }
    const size_t before = VerifyTrack(io, written);
    io.Restart();
    EXPECT_EQ(VerifyTrack(io, written), before);
    EXPECT_EQ(before, 20u);
    EXPECT_FALSE(log.Contains("is not indexed"));
    EXPECT_FALSE(log.Contains("already indexed"));
}

TEST(TrackWriterReader, ClearingOrShrinkingWhileWritingBringsNothingBack) {
    TrackIo io(13, 4, 16 * 1024);
    std::map<int64_t, size_t> written;
    int64_t t = 0;
    LogCapture log("LoopRecordingFileManager");
    {
        LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
        writer.SetTrackDirectory(io.Root());
        auto append = [&](int count) {
            for (int i = 0; i < count; ++i, t += kSecond) {
                Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, 3000);
                writer.Append(chunk);
                written[t] = 3000;
            }
            io.Cache().Stop();  // let the flusher index what it has
            io.Cache().Run();
        };
        append(7);  // one full file and a half-written one
        io.Manager().Clear();
        append(7);
        // Shrink by two files while the writer is inside one of them.
        io.Manager().RemoveFiles(io.Manager().RemoveFiles(2 * 16 * 1024));
        append(7);
    }
    std::map<int64_t, size_t> indexed;
    for (const auto& [key, block] : io.Manager().GetBlocks()) {
        for (const auto& [tp, chunk] : block.GetChunks())
            indexed[tp.ToNanoseconds()] = 3000;
    }
    io.Restart();
    // Exactly what the index held before the restart comes back, readable.
    EXPECT_EQ(VerifyTrack(io, written), indexed.size());
    size_t reloaded = 0;
    for (const auto& [key, block] : io.Manager().GetBlocks())
        reloaded += block.GetChunkNumber();
    EXPECT_EQ(reloaded, indexed.size());
    EXPECT_FALSE(log.Contains("is not indexed"));
}
