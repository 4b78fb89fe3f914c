// One track index used at once by readers, the writer and the track service.
// The work of every thread is bounded by counts; all start behind a latch.

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <iterator>
#include <latch>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "tests/Storage/Indexes/Ram/TrackFixture.h"
#include "tests/Support/TestTime.h"

using loopstore::test::Ns;
using loopstore::test::TrackFixture;
using Moreld::Time::TimePoint;

namespace {

constexpr long kChunks = 8000;
constexpr int kReaders = 2;
constexpr int kReadsPerReader = 8000;
constexpr int kServiceRounds = 800;
constexpr unsigned long kFileSize = 16384;
constexpr int kFirstFiles = 4;
constexpr int kSpareFiles = 6;
constexpr int64_t kStepNs = 16'000'000;

// Chunk i starts at i steps and lasts a step, except every 50th, which lasts
// half a step and leaves a gap; its size follows from i. Any chunk a reader
// gets back can so be checked on its own.
TimePoint StartOf(long i) {
    return Ns(i * kStepNs);
}
TimePoint DurationOf(long i) {
    return Ns(i % 50 == 49 ? kStepNs / 2 : kStepNs);
}
unsigned long SizeOf(long i) {
    return 64 + static_cast<unsigned long>(i * 7919 % 900);
}

// What is wrong with a chunk the index handed out; empty when nothing.
std::string ProblemWith(const FileSystem::Chunk& c) {
    const int64_t ns = c.timepoint.ToNanoseconds();
    if (ns < 0 || ns % kStepNs != 0 || ns / kStepNs >= kChunks)
        return "never appended";
    const long i = ns / kStepNs;
    if (c.duration != DurationOf(i) || c.location.size != SizeOf(i))
        return "duration or size of another chunk";
    if (c.location.offset < 16 || c.location.offset + c.location.size > kFileSize)
        return "outside its file";
    if ((c.location.chunkIndex == 0) != (c.location.offset == 16))
        return "index and offset disagree";
    return "";
}

// Problems seen by the threads, for the main thread to report.
class Problems {
  public:
    void Add(const std::string& what, const FileSystem::Chunk& chunk) {
        std::lock_guard<std::mutex> lock(mutex_);
        list_.push_back(what + ": " + chunk.ToString());
    }
    void Add(const std::string& what) {
        std::lock_guard<std::mutex> lock(mutex_);
        list_.push_back(what);
    }
    std::vector<std::string> List() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return list_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> list_;
};

class ConcurrentTrack {
  public:
    ConcurrentTrack() : track_(11, kFirstFiles, kFileSize), manager_(track_.NewManagerWithFiles()) {
        for (const ChunkFile& file : track_.AddFiles(kSpareFiles, kFileSize))
            pool_.push_back(file);
    }

    void Run();
    LoopRecordingFileManager& Manager() { return *manager_; }
    std::vector<std::string> ProblemList() const { return problems_.List(); }

  private:
    void Write();
    // Paces the other threads along the writer, so that all of them work
    // while the track moves.
    void WaitForWriter(long chunks) const {
        while (appended_.load() < chunks)
            std::this_thread::yield();
    }
    void Read(int seed);
    void CheckOneRead(int n, TimePoint t);
    void Serve();
    void ProtectOneBlock(std::mt19937& random);
    void ShrinkByOneFile();

    TrackFixture track_;
    std::unique_ptr<LoopRecordingFileManager> manager_;
    std::latch start_{kReaders + 2};
    std::atomic<long> appended_{0};
    Problems problems_;

    // Service thread only.
    std::deque<long> protections_;
    long nextProtectionId_ = 1;
    size_t fileCount_ = kFirstFiles;
    // Files out of the track, lent again after they are given back.
    std::deque<ChunkFile> pool_;
};

void ConcurrentTrack::Run() {
    std::vector<std::thread> threads;
    threads.emplace_back([this] { Write(); });
    threads.emplace_back([this] { Serve(); });
    for (int r = 0; r < kReaders; ++r)
        threads.emplace_back([this, r] { Read(r); });
    for (std::thread& thread : threads)
        thread.join();
}

// The writer's part: appends and saves each finished block, as the track
// writer does.
void ConcurrentTrack::Write() {
    start_.arrive_and_wait();
    std::vector<FileSystem::Chunk> block;
    for (long i = 0; i < kChunks; ++i) {
        try {
            FileSystem::Chunk chunk = manager_->Append(StartOf(i), DurationOf(i), SizeOf(i));
            if (chunk.location.chunkIndex == 0 && !block.empty()) {
                manager_->SaveAndRemove(block);
                block.clear();
            }
            block.push_back(chunk);
        } catch (const std::runtime_error& e) {
            problems_.Add(std::string("Append failed: ") + e.what());
        }
        appended_.store(i + 1);
    }
    manager_->SaveAndRemove(block);
}

void ConcurrentTrack::Read(int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    start_.arrive_and_wait();
    for (int n = 0; n < kReadsPerReader; ++n) {
        WaitForWriter(n * kChunks / kReadsPerReader);
        // Mostly around what the track still holds, sometimes anywhere.
        const int64_t end = (appended_.load() + 1) * kStepNs;
        const int64_t begin = n % 4 == 0 ? -kStepNs : end - 200 * kStepNs;
        CheckOneRead(n, Ns(std::uniform_int_distribution<int64_t>(begin, end)(random)));
    }
}

void ConcurrentTrack::CheckOneRead(int n, TimePoint t) {
    LoopRecordingFileManager& m = *manager_;
    TimePoint found;
    IFileSystemManager::ChunkHandle handle;
    switch (n % 5) {
        case 0:
            if ((handle = m.Lookup(t))) {
                const FileSystem::Chunk c = handle->GetChunk();
                if (t < c.timepoint || t >= c.timepoint + c.duration)
                    problems_.Add("Lookup(" + t.ToString() + ") does not hold it", c);
            }
            break;
        case 1:
            if ((handle = m.Next(t, found))) {
                const FileSystem::Chunk c = handle->GetChunk();
                if (c.timepoint <= t || found != c.timepoint)
                    problems_.Add("Next(" + t.ToString() + ") not after it", c);
            }
            break;
        case 2:
            if ((handle = m.Previous(t, found))) {
                const FileSystem::Chunk c = handle->GetChunk();
                if (c.timepoint + c.duration > t || found != c.timepoint)
                    problems_.Add("Previous(" + t.ToString() + ") not before it", c);
            }
            break;
        case 3:
            if ((handle = m.GetFirstChunkLocation(found)) && found != handle->GetChunk().timepoint)
                problems_.Add("first chunk not at the found time", handle->GetChunk());
            break;
        default:
            // Counts may shift while the track moves; they must only not fail.
            m.GetNumberOfChunks(t, t + Ns(10 * kStepNs));
            m.GetAccumulatedDuration(t, t + Ns(10 * kStepNs));
            break;
    }
    if (handle) {
        const std::string problem = ProblemWith(handle->GetChunk());
        if (!problem.empty())
            problems_.Add(problem, handle->GetChunk());
    }
}

// The track service's part: protections come and go (at most two, one block
// each, so the writer always finds a file), files are added and given back,
// and now and then the track is cleared.
void ConcurrentTrack::Serve() {
    std::mt19937 random(99);
    start_.arrive_and_wait();
    for (int r = 0; r < kServiceRounds; ++r) {
        WaitForWriter(r * kChunks / kServiceRounds);
        switch (r % 8) {
            case 0:
            case 4:
                ProtectOneBlock(random);
                break;
            case 1:
                if (!protections_.empty()) {
                    manager_->Unprotect(protections_.front());
                    protections_.pop_front();
                }
                break;
            case 2:
                if (!pool_.empty() && fileCount_ < kFirstFiles + 3) {
                    manager_->InsertFiles({pool_.front()});
                    pool_.pop_front();
                    ++fileCount_;
                }
                break;
            case 3:
                ShrinkByOneFile();
                break;
            case 5:
                if (!manager_->CheckInvariant())
                    problems_.Add("blocks overlap");
                manager_->GetRecyclableKeys();
                manager_->GetProtections();
                manager_->GetEmptyFiles();
                manager_->GetSizeOnRam();
                manager_->HasFile(track_.Files().front());
                break;
            case 6:
                manager_->SetActiveMode(r % 16 == 6);
                manager_->IsActive();
                break;
            default:
                if (r % 100 == 7)
                    manager_->Clear();
                break;
        }
    }
}

void ConcurrentTrack::ProtectOneBlock(std::mt19937& random) {
    const auto blocks = manager_->GetBlocks();
    if (blocks.empty())
        return;
    auto block = blocks.begin();
    std::advance(block, std::uniform_int_distribution<size_t>(0, blocks.size() - 1)(random));
    const long id = nextProtectionId_++;
    try {
        manager_->Protect(id, block->first, block->first + Ns(1));
    } catch (const std::runtime_error&) {
        return;  // the block was recycled meanwhile
    }
    protections_.push_back(id);
    if (protections_.size() > 2) {
        manager_->Unprotect(protections_.front());
        protections_.pop_front();
    }
}

void ConcurrentTrack::ShrinkByOneFile() {
    if (fileCount_ <= kFirstFiles + 1)
        return;
    const std::vector<ChunkFile> given = manager_->RemoveFiles(1);
    manager_->RemoveFiles(given);
    fileCount_ -= given.size();
    pool_.insert(pool_.end(), given.begin(), given.end());
}

}  // namespace

TEST(LoopRecordingConcurrency, ReadersSeeWholeChunksWhileTheTrackLoopsAndChanges) {
    ConcurrentTrack track;
    track.Run();
    for (const std::string& problem : track.ProblemList())
        ADD_FAILURE() << problem;

    // Once quiet, the index agrees with itself.
    LoopRecordingFileManager& m = track.Manager();
    EXPECT_TRUE(m.CheckInvariant());
    const auto blocks = m.GetBlocks();
    unsigned long payload = 0;
    std::set<TimePoint> unprotected;
    for (const auto& [key, block] : blocks) {
        if (block.GetProtections().empty())
            unprotected.insert(key);
        for (const auto& [tp, chunk] : block.GetChunks()) {
            payload += chunk.location.size;
            EXPECT_EQ(ProblemWith(chunk), "");
            ASSERT_TRUE(m.Lookup(tp)) << chunk;
        }
    }
    EXPECT_EQ(m.GetTrackSize(), payload);
    EXPECT_EQ(m.GetMaxTrackSize(), kFileSize * (blocks.size() + m.GetEmptyFiles().size()));
    EXPECT_EQ(m.GetRecyclableKeys(), unprotected);
    // The end of the track is the last chunk's end, unless the service
    // cleared the track after the last append: the end is then that of the
    // newest block the clear kept, all of them protected.
    const TimePoint lastEnd = StartOf(kChunks - 1) + DurationOf(kChunks - 1);
    if (m.GetEndOfTrack() != lastEnd) {
        ASSERT_FALSE(blocks.empty());
        EXPECT_TRUE(unprotected.empty());
        EXPECT_EQ(m.GetEndOfTrack(), blocks.rbegin()->second.GetTcOut());
        EXPECT_LT(m.GetEndOfTrack(), lastEnd);
    }
}
