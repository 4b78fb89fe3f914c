// A track recorded while the service clears it and gives its files back to
// the pool or lends it more: first with the service's step placed exactly at
// the writer's risky steps (sync points), then freely interleaved.

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "Platform/Tools/SyncPoint.h"
#include "Storage/Indexes/SQLite/TrackDB.h"
#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"
#include "tests/Storage/Server/FileSystem/TrackIoFixture.h"
#include "tests/Support/SyncPoints.h"

using loopstore::test::At;
using loopstore::test::kSecond;
using loopstore::test::MakeChunkMessage;
using loopstore::test::PayloadFor;
using loopstore::test::TrackIo;
using Moreld::Tools::SyncPoint;

namespace {

constexpr unsigned long kFileSize = 16 * 1024;
constexpr int kFiles = 4;
constexpr size_t kPayload = 3000;  // five chunks per file
constexpr unsigned long kEverything = ~0UL;

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// Runs the service's operations on a thread of its own, one at a time.
class ServiceThread {
  public:
    ServiceThread() : thread_([this] { Loop(); }) {}
    ~ServiceThread() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    // Queues `op`; with `wait`, returns once it has run.
    void Run(std::function<void()> op, bool wait) {
        std::unique_lock<std::mutex> lock(mutex_);
        const long ticket = ++queued_;
        ops_.push_back(std::move(op));
        changed_.notify_all();
        if (wait)
            changed_.wait(lock, [&] { return done_ >= ticket; });
    }
    void WaitIdle() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return done_ == queued_; });
    }

  private:
    void Loop() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] { return stopping_ || !ops_.empty(); });
            if (ops_.empty())
                return;
            std::function<void()> op = std::move(ops_.front());
            ops_.pop_front();
            lock.unlock();
            op();
            lock.lock();
            ++done_;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> ops_;
    long queued_ = 0;
    long done_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

// The track service's side of a track: clearing, and resizing the way the
// track storage does, with a pool directory the files go to. A file out of
// the track is watched: none of its bytes may change until it is lent again.
class TrackService {
  public:
    explicit TrackService(TrackIo& io) : io_(io), poolDir_(io.DbDir() + "/../pool") {
        std::filesystem::create_directories(poolDir_);
    }

    void Clear() { io_.Manager().Clear(); }

    void Shrink(unsigned long bytes) {
        LoopRecordingFileManager& manager = io_.Manager();
        std::vector<ChunkFile> files = manager.RemoveFiles(bytes);
        std::lock_guard<std::mutex> lock(mutex_);
        for (const ChunkFile& file : files) {
            const std::string path = PoolPath(file);
            std::filesystem::rename(file.GetAbsoluteFileName(io_.Root(), false), path);
            out_[file.GetFileNumber()] = {file, ReadWholeFile(path)};
        }
        manager.RemoveFiles(files);
    }

    void Grow(size_t count) {
        std::vector<ChunkFile> files;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            while (files.size() < count && !out_.empty()) {
                const ChunkFile file = out_.begin()->second.file;
                out_.erase(out_.begin());
                std::filesystem::rename(PoolPath(file),
                                        file.GetAbsoluteFileName(io_.Root(), false));
                files.push_back(file);
            }
        }
        io_.Manager().InsertFiles(files);
    }

    std::set<long> FilesOut() const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::set<long> numbers;
        for (const auto& [number, given] : out_)
            numbers.insert(number);
        return numbers;
    }

    void ExpectFilesOutUntouched() const {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [number, given] : out_)
            EXPECT_TRUE(ReadWholeFile(PoolPath(given.file)) == given.content)
                << "file " << number << " was written after it left the track";
    }

  private:
    struct Given {
        ChunkFile file;
        std::string content;
    };
    std::string PoolPath(const ChunkFile& file) const {
        return poolDir_ + "/" + file.GetFileName();
    }

    TrackIo& io_;
    const std::string poolDir_;
    mutable std::mutex mutex_;
    std::map<long, Given> out_;  // guarded by mutex_
};

// Appends `count` chunks from the end of the track through one writer;
// chunks the writer refuses are skipped. Returns the end of the last one.
int64_t Record(TrackIo& io, int count) {
    int64_t t = io.Manager().GetEndOfTrack().ToNanoseconds() + kSecond;
    LoopRecordingFileTrackWriter writer(io.TrackId(), io.Manager(), io.Cache());
    writer.SetTrackDirectory(io.Root());
    for (int i = 0; i < count; ++i, t += kSecond) {
        Protocol::Chunk chunk = MakeChunkMessage(t, kSecond, kPayload);
        try {
            writer.Append(chunk);
        } catch (const std::runtime_error&) {
            // A track left without files refuses chunks; the test goes on.
        }
    }
    return t;
}

using Snapshot = std::map<Moreld::Time::TimePoint, std::vector<Moreld::Time::TimePoint>>;

Snapshot BlocksOf(LoopRecordingFileManager& manager) {
    Snapshot blocks;
    for (const auto& [key, block] : manager.GetBlocks()) {
        for (const auto& [tp, chunk] : block.GetChunks())
            blocks[key].push_back(tp);
    }
    return blocks;
}

// The index, the database and the files agree: every file of the track is
// listed once (empty or by one block), the files out of the track are
// nowhere and untouched, every indexed chunk reads back, and a restart
// finds the same index.
void ExpectConsistent(TrackIo& io, const TrackService& service) {
    LoopRecordingFileManager& manager = io.Manager();
    std::multiset<long> inTrack;
    for (const ChunkFile& file : manager.GetEmptyFiles())
        inTrack.insert(file.GetFileNumber());
    for (const auto& [key, block] : manager.GetBlocks())
        inTrack.insert(block.GetChunkFile().GetFileNumber());
    const std::set<long> out = service.FilesOut();
    EXPECT_EQ(inTrack.size() + out.size(), static_cast<size_t>(kFiles));
    for (long number = 1; number <= kFiles; ++number)
        EXPECT_EQ(inTrack.count(number) + out.count(number), 1u) << "file " << number;
    EXPECT_EQ(manager.GetMaxTrackSize(), inTrack.size() * kFileSize);
    service.ExpectFilesOutUntouched();

    ChunkCacheTrackReader reader(io.TrackId(), manager, io.Cache());
    reader.SetTrackDirectory(io.Root());
    for (const auto& [key, block] : manager.GetBlocks()) {
        for (const auto& [tp, chunk] : block.GetChunks()) {
            Protocol::TimePoint at;
            at.set_nanoseconds(tp.ToNanoseconds());
            Protocol::Chunk got;
            bool found = false;
            ASSERT_NO_THROW(reader.GetChunk(at, Protocol::KeyList(), got, found)) << tp;
            ASSERT_TRUE(found);
            EXPECT_TRUE(got.data() == PayloadFor(tp.ToNanoseconds(), kPayload)) << tp;
        }
    }

    const Snapshot before = BlocksOf(manager);
    io.Close();
    {
        TrackDB db;
        ASSERT_TRUE(db.Open(io.DbDir(), io.TrackId()));
        std::multiset<long> listed;
        for (const ChunkFile& file : db.GetAllEmptyFiles())
            listed.insert(file.GetFileNumber());
        std::set<long> withChunks;
        for (const FileSystem::Chunk& chunk : db.GetAllChunks())
            withChunks.insert(chunk.location.file.GetFileNumber());
        listed.insert(withChunks.begin(), withChunks.end());
        EXPECT_EQ(listed, inTrack) << "the database lists other files than the index";
    }
    io.Restart();
    EXPECT_EQ(BlocksOf(io.Manager()), before);
    EXPECT_EQ(io.Manager().GetMaxTrackSize(), inTrack.size() * kFileSize);
}

// At the `occurrence`th time the writer reaches `point`, `op` runs on the
// service thread; with `wait` the writer waits for it there.
void Interleave(const char* point, int occurrence, bool wait,
                const std::function<void(TrackService&)>& op) {
    SCOPED_TRACE(std::string(point) + " #" + std::to_string(occurrence));
    TrackIo io(41, kFiles, kFileSize);
    TrackService service(io);
    {
        ServiceThread thread;
        auto count = std::make_shared<int>(0);
        SyncPoint::Instance().SetCallback(point, [&, count] {
            if (++*count == occurrence)
                thread.Run([&] { op(service); }, wait);
        });
        Record(io, 30);  // loops: four files hold twenty chunks
        SyncPoint::Instance().ClearAll();
        thread.WaitIdle();
        ASSERT_EQ(*count >= occurrence, true) << "the writer never got there";
    }
    ExpectConsistent(io, service);
    // The track records on, with files lent again.
    service.Grow(kFiles);
    Record(io, 12);
    ExpectConsistent(io, service);
}

}  // namespace

TEST(TrackResizeWhileWriting, ServiceStepsAtTheWritersRiskySteps) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    using Op = std::function<void(TrackService&)>;
    const Op clear = [](TrackService& s) { s.Clear(); };
    const Op shrinkAll = [](TrackService& s) { s.Shrink(kEverything); };
    const Op clearThenShrink = [](TrackService& s) {
        s.Clear();
        s.Shrink(kEverything);
    };
    const Op shrinkOne = [](TrackService& s) { s.Shrink(1); };
    // A chunk placed in a file and not yet written there: in a file's middle
    // (3rd chunk) or as the first chunk of a new file (6th), or of a recycled
    // one (21st).
    for (int occurrence : {3, 6, 21}) {
        for (const Op& op : {clear, shrinkAll, clearThenShrink, shrinkOne})
            Interleave("LoopRecordingFileTrackWriter::Flush:Placed", occurrence, true, op);
    }
    // A finished file about to be saved, and a file's record just written.
    for (const Op& op : {clear, shrinkAll, clearThenShrink})
        Interleave("LoopRecordingFileTrackWriter::SaveCurrentFile:Saving", 2, true, op);
    for (const Op& op : {clear, shrinkAll, clearThenShrink})
        Interleave("LoopRecordingFileTrackWriter::WriteChunk:Written", 8, true, op);
    // A finished file's chunks checked against the index, about to be saved:
    // the index's locks are held, the service waits for them.
    for (const Op& op : {clear, shrinkAll, clearThenShrink})
        Interleave("LoopRecordingFileManager::SaveAndRemove:Checked", 2, false, op);
    // A recycled file just forgotten by the database: the index's locks are
    // held, the service waits for them.
    for (const Op& op : {clear, shrinkAll, shrinkOne})
        Interleave("LoopRecordingFileManager::ForgetRecycledFile:Committed", 1, false, op);
}

TEST(TrackResizeWhileWriting, ServiceAndWriterInterleaveFreely) {
    TrackIo io(42, kFiles, kFileSize);
    TrackService service(io);
    std::latch start(2);
    std::thread writer([&] {
        start.arrive_and_wait();
        Record(io, 600);
    });
    std::thread serve([&] {
        std::mt19937 random(7);
        start.arrive_and_wait();
        for (int round = 0; round < 300; ++round) {
            switch (std::uniform_int_distribution<int>(0, 4)(random)) {
                case 0:
                    service.Clear();
                    break;
                case 1:
                    service.Shrink(kFileSize);
                    break;
                case 2:
                    service.Shrink(kEverything);
                    break;
                default:
                    service.Grow(std::uniform_int_distribution<size_t>(1, kFiles)(random));
                    break;
            }
            std::this_thread::yield();
        }
    });
    writer.join();
    serve.join();
    ExpectConsistent(io, service);
}
