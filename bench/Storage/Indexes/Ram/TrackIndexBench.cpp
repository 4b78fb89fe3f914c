// Speed and footprint of the track index (LoopRecordingFileManager), each
// case beside the plain std::map work it stands on, measured in one run.
//
// Pairs to compare:
//   AppendInBlock   vs MapInsertAtEnd/locked:0  goal: <= 2 x map insert
//                   (MapInsertAtEnd/locked:1, BoostSharedLock and BoostUniqueLock
//                   show where the rest of the time goes)
//   AppendOpenBlock, AppendRecycle/durable:{0,1}: no RAM baseline, they choose files
//   Lookup          vs MapFind                  goal: <= 2 x map find
//   Next, Previous  vs MapUpperBound
//   OpenDatabase    vs ReadAllRows              goal: >= 1,000,000 chunks/s
//   RebuildMemory   (what OpenDatabase keeps)   goal: <= 120 B per chunk
//   IndexMemory     vs MapMemory                goal: <= 120 B per chunk
// Databases live in $LOOPSTORE_BENCH_DIR, else $TMPDIR, else /tmp; chunk
// files need not exist, the index never opens them on these paths.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <boost/thread/shared_mutex.hpp>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Platform/File/ChunkFileHeader.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/File/ChunkFile.h"
#include "Storage/Indexes/Ram/Chunk.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManager.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "Storage/Indexes/SQLite/TrackDB.h"

namespace {

using Moreld::Time::TimePoint;
using ChunkMap = std::map<TimePoint, FileSystem::Chunk>;
using Clock = std::chrono::steady_clock;

constexpr int64_t kChunkNs = 40'000'000;  // 25 chunks per second
const TimePoint kChunkDuration = TimePoint::FromNanoseconds(kChunkNs);
constexpr unsigned long kChunkSize = 100'000;
constexpr long kHeaderSize = static_cast<long>(Moreld::File::ChunkFileHeader::kSize);

// Files so large that the current block never fills.
constexpr long kHugeFileSize = long{1} << 40;
// Files that take exactly one chunk: every append opens a block.
constexpr long kOneChunkFileSize = kHeaderSize + static_cast<long>(kChunkSize) + 1;

// Append benchmarks start a fresh track (timing paused) past these sizes, so
// that a long run does not hold gigabytes.
constexpr int64_t kAppendsPerTrack = 1 << 19;
constexpr long kFilesPerRefill = 1 << 16;
constexpr int64_t kBlocksPerTrack = 4 * kFilesPerRefill;
constexpr long kRecycleFiles = 256;

// The large track: 1000 files of 1000 chunks.
constexpr long kMillionFiles = 1000;
constexpr int64_t kChunksPerFile = 1000;
constexpr int64_t kMillionChunks = kMillionFiles * kChunksPerFile;
constexpr long kMillionFileSize = kHeaderSize + static_cast<long>(kChunksPerFile * kChunkSize);
constexpr long kMillionTrackId = 7;
constexpr size_t kProbeCount = size_t{1} << 20;

TimePoint ChunkTime(int64_t index) {
    return TimePoint::FromNanoseconds(index * kChunkNs);
}

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// A fresh directory for databases, removed with everything in it.
class BenchDir {
  public:
    explicit BenchDir(const std::string& name) {
        const char* base = getenv("LOOPSTORE_BENCH_DIR");
        if (base == nullptr)
            base = getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr ? base : "/tmp") + "/indexbench-" + name + "-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        path_ = pattern;
    }
    ~BenchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    BenchDir(const BenchDir&) = delete;
    BenchDir& operator=(const BenchDir&) = delete;

    const std::string& Path() const { return path_; }

  private:
    std::string path_;
};

// `count` files of `size` bytes numbered from `first`, in the track's directory.
std::vector<ChunkFile> MakeFiles(long first, long count, long size, long trackId) {
    std::vector<ChunkFile> files;
    files.reserve(static_cast<size_t>(count));
    for (long number = first; number < first + count; ++number)
        files.emplace_back(number, 8, size, trackId);
    return files;
}

// An empty track on its own database in `dir`.
std::unique_ptr<LoopRecordingFileManager> NewTrack(const BenchDir& dir, long trackId) {
    auto manager = std::make_unique<LoopRecordingFileManager>(trackId);
    manager->OpenDatabase(dir.Path());
    return manager;
}

// Heap bytes in use and resident bytes of the process.
struct Footprint {
    static Footprint Now() {
        const struct mallinfo2 info = mallinfo2();
        long pages = 0;
        long resident = 0;
        if (FILE* statm = fopen("/proc/self/statm", "r")) {
            if (fscanf(statm, "%ld %ld", &pages, &resident) != 2)
                resident = 0;
            fclose(statm);
        }
        return {static_cast<double>(info.uordblks + info.hblkhd),
                static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE))};
    }

    double heap;
    double resident;
};

// Reports the growth since `before` per item. Freed memory is handed back to
// the system before `before` is taken, or reused pages would hide the growth.
void ReportGrowth(benchmark::State& state, const Footprint& before, int64_t items) {
    const Footprint after = Footprint::Now();
    const double count = static_cast<double>(items);
    state.counters["heap_B_per_chunk"] = (after.heap - before.heap) / count;
    state.counters["rss_B_per_chunk"] = (after.resident - before.resident) / count;
}

// ---------------------------------------------------------------------------
// Appending

void BM_AppendInBlock(benchmark::State& state) {
    BenchDir dir("inblock");
    long trackId = 1;
    auto manager = NewTrack(dir, trackId);
    manager->InsertFiles(MakeFiles(1, 4, kHugeFileSize, trackId));
    int64_t index = 0;
    for (auto _ : state) {
        if (index == kAppendsPerTrack) {
            state.PauseTiming();
            manager.reset();
            manager = NewTrack(dir, ++trackId);
            manager->InsertFiles(MakeFiles(1, 4, kHugeFileSize, trackId));
            index = 0;
            state.ResumeTiming();
        }
        FileSystem::Chunk chunk = manager->Append(ChunkTime(index++), kChunkDuration, kChunkSize);
        benchmark::DoNotOptimize(chunk);
    }
}
BENCHMARK(BM_AppendInBlock);

// What AppendInBlock cannot do with less: build the chunk record and insert it
// at the end of an ordered map; with locked:1, under one exclusive
// std::shared_mutex lock, the least a map shared with readers needs.
void BM_MapInsertAtEnd(benchmark::State& state) {
    const bool locked = state.range(0) != 0;
    const ChunkFile file(1, 8, kHugeFileSize, 1, 0, true);
    std::shared_mutex mutex;
    ChunkMap chunks;
    int64_t index = 0;
    for (auto _ : state) {
        if (index == kAppendsPerTrack) {
            state.PauseTiming();
            chunks.clear();
            index = 0;
            state.ResumeTiming();
        }
        const unsigned long offset = kHeaderSize + static_cast<unsigned long>(index) * kChunkSize;
        FileSystem::Chunk chunk(
            ChunkTime(index), kChunkDuration, ChunkTime(index),
            ChunkLocation(file, offset, kChunkSize, static_cast<unsigned long>(index)));
        chunk.sequenceNumber = static_cast<unsigned long>(index);
        if (locked)
            mutex.lock();
        auto placed = chunks.emplace_hint(chunks.end(), chunk.timepoint, chunk);
        if (locked)
            mutex.unlock();
        benchmark::DoNotOptimize(placed);
        ++index;
    }
}
BENCHMARK(BM_MapInsertAtEnd)->ArgName("locked")->Arg(0)->Arg(1);

// What the locks of one AppendInBlock cost alone, uncontended: it takes two
// shared and one exclusive round trip on boost::shared_mutex.
template <typename Mutex, bool kExclusive>
void BM_LockRoundTrip(benchmark::State& state) {
    Mutex mutex;
    for (auto _ : state) {
        if constexpr (kExclusive) {
            mutex.lock();
            mutex.unlock();
        } else {
            mutex.lock_shared();
            mutex.unlock_shared();
        }
    }
}
BENCHMARK_TEMPLATE(BM_LockRoundTrip, boost::shared_mutex, false)->Name("BM_BoostSharedLock");
BENCHMARK_TEMPLATE(BM_LockRoundTrip, boost::shared_mutex, true)->Name("BM_BoostUniqueLock");

// Each chunk fills a file: every append takes the next empty file.
void BM_AppendOpenBlock(benchmark::State& state) {
    BenchDir dir("openblock");
    long trackId = 0;
    std::unique_ptr<LoopRecordingFileManager> manager;
    int64_t blocks = 0;
    long emptyLeft = 0;
    int64_t index = 0;
    for (auto _ : state) {
        if (emptyLeft == 0) {
            state.PauseTiming();
            if (!manager || blocks >= kBlocksPerTrack) {
                manager.reset();
                manager = NewTrack(dir, ++trackId);
                blocks = 0;
            }
            manager->InsertFiles(
                MakeFiles(blocks + 1, kFilesPerRefill, kOneChunkFileSize, trackId));
            emptyLeft = kFilesPerRefill;
            state.ResumeTiming();
        }
        FileSystem::Chunk chunk = manager->Append(ChunkTime(index++), kChunkDuration, kChunkSize);
        benchmark::DoNotOptimize(chunk);
        --emptyLeft;
        ++blocks;
    }
}
BENCHMARK(BM_AppendOpenBlock);

// Every file is used and each holds one chunk: every append recycles the
// oldest block. Durable recycling commits the file's release with an fsync
// before the append returns. Only Append is timed; when durable, the writer's
// save of each chunk follows (untimed) so that the next release finds the
// file's row as it would in service. Without durable recycling Append never
// touches the database, so the rows need not be kept.
void BM_AppendRecycle(benchmark::State& state) {
    const bool durable = state.range(0) != 0;
    BenchDir dir("recycle");
    auto manager = NewTrack(dir, 1);
    manager->SetDurableRecycling(durable);
    manager->InsertFiles(MakeFiles(1, kRecycleFiles, kOneChunkFileSize, 1));
    int64_t index = 0;
    for (; index < kRecycleFiles; ++index)
        manager->SaveAndRemove({manager->Append(ChunkTime(index), kChunkDuration, kChunkSize)});
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        FileSystem::Chunk chunk = manager->Append(ChunkTime(index++), kChunkDuration, kChunkSize);
        state.SetIterationTime(Seconds(start));
        benchmark::DoNotOptimize(chunk);
        if (durable)
            manager->SaveAndRemove({chunk});
    }
    state.SetLabel(durable ? "durable recycling" : "recycling not durable");
}
BENCHMARK(BM_AppendRecycle)->ArgName("durable")->Arg(0)->Arg(1)->UseManualTime();

// ---------------------------------------------------------------------------
// Lookup and navigation on a large track

// One track of 1,000,000 chunks, saved file by file to its database as the
// writer does, the same chunks in a plain map, and random instants inside the
// track. Built on first use, kept until exit.
class MillionChunkTrack {
  public:
    static MillionChunkTrack& Get() {
        static MillionChunkTrack track;
        return track;
    }

    LoopRecordingFileManager& Manager() { return *manager_; }
    const ChunkMap& Map() const { return map_; }
    const std::string& Directory() const { return dir_.Path(); }
    // A random instant inside a chunk, and the start of that chunk.
    TimePoint Probe(size_t i) const {
        return TimePoint::FromNanoseconds(probes_[i & (kProbeCount - 1)]);
    }
    TimePoint ProbeKey(size_t i) const {
        const int64_t ns = probes_[i & (kProbeCount - 1)];
        return TimePoint::FromNanoseconds(ns - ns % kChunkNs);
    }

  private:
    MillionChunkTrack() : dir_("million"), manager_(NewTrack(dir_, kMillionTrackId)) {
        manager_->SetChunkProtectionFactory(&factory_);
        Fill();
        DrawProbes();
    }

    void Fill() {
        manager_->InsertFiles(MakeFiles(1, kMillionFiles, kMillionFileSize, kMillionTrackId));
        std::vector<FileSystem::Chunk> file;
        for (int64_t index = 0; index < kMillionChunks; ++index) {
            file.push_back(manager_->Append(ChunkTime(index), kChunkDuration, kChunkSize));
            map_.emplace_hint(map_.end(), file.back().timepoint, file.back());
            if (static_cast<int64_t>(file.size()) == kChunksPerFile) {
                manager_->SaveAndRemove(file);
                file.clear();
            }
        }
    }

    void DrawProbes() {
        std::mt19937_64 random(42);
        std::uniform_int_distribution<int64_t> instant(0, kMillionChunks * kChunkNs - 1);
        probes_.resize(kProbeCount);
        for (int64_t& probe : probes_)
            probe = instant(random);
    }

    BenchDir dir_;
    NoChunkProtectionFactory factory_;
    std::unique_ptr<LoopRecordingFileManager> manager_;
    ChunkMap map_;
    std::vector<int64_t> probes_;
};

void BM_Lookup(benchmark::State& state) {
    MillionChunkTrack& track = MillionChunkTrack::Get();
    size_t i = 0;
    for (auto _ : state) {
        IFileSystemManager::ChunkHandle handle = track.Manager().Lookup(track.Probe(i++));
        if (!handle) {
            state.SkipWithError("an instant inside the track was not found");
            break;
        }
        benchmark::DoNotOptimize(handle.get());
    }
}
BENCHMARK(BM_Lookup);

// The chunk starting at the probed chunk's start, copied out as Lookup does.
void BM_MapFind(benchmark::State& state) {
    const MillionChunkTrack& track = MillionChunkTrack::Get();
    size_t i = 0;
    for (auto _ : state) {
        FileSystem::Chunk chunk = track.Map().find(track.ProbeKey(i++))->second;
        benchmark::DoNotOptimize(chunk);
    }
}
BENCHMARK(BM_MapFind);

void BM_Next(benchmark::State& state) {
    MillionChunkTrack& track = MillionChunkTrack::Get();
    size_t i = 0;
    TimePoint found;
    for (auto _ : state) {
        IFileSystemManager::ChunkHandle handle = track.Manager().Next(track.Probe(i++), found);
        benchmark::DoNotOptimize(handle.get());
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Next);

void BM_Previous(benchmark::State& state) {
    MillionChunkTrack& track = MillionChunkTrack::Get();
    size_t i = 0;
    TimePoint found;
    for (auto _ : state) {
        IFileSystemManager::ChunkHandle handle = track.Manager().Previous(track.Probe(i++), found);
        benchmark::DoNotOptimize(handle.get());
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Previous);

// The chunk after a random instant, copied out.
void BM_MapUpperBound(benchmark::State& state) {
    const MillionChunkTrack& track = MillionChunkTrack::Get();
    size_t i = 0;
    for (auto _ : state) {
        auto it = track.Map().upper_bound(track.Probe(i++));
        if (it != track.Map().end()) {
            FileSystem::Chunk chunk = it->second;
            benchmark::DoNotOptimize(chunk);
        }
    }
}
BENCHMARK(BM_MapUpperBound);

// ---------------------------------------------------------------------------
// Opening a track's database

// Rebuilds the million-chunk index from its database in a fresh manager; the
// manager's destruction is not timed.
void BM_OpenDatabase(benchmark::State& state) {
    const MillionChunkTrack& track = MillionChunkTrack::Get();
    for (auto _ : state) {
        auto manager = std::make_unique<LoopRecordingFileManager>(kMillionTrackId);
        const Clock::time_point start = Clock::now();
        manager->OpenDatabase(track.Directory());
        state.SetIterationTime(Seconds(start));
        if (manager->GetTrackSize() != static_cast<unsigned long>(kMillionChunks) * kChunkSize) {
            state.SkipWithError("the reopened track does not hold every chunk");
            break;
        }
    }
    state.counters["chunks_per_s"] = benchmark::Counter(
        static_cast<double>(kMillionChunks), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_OpenDatabase)->UseManualTime()->Unit(benchmark::kMillisecond);

// The SQLite part of opening: every chunk row read into records.
void BM_ReadAllRows(benchmark::State& state) {
    const MillionChunkTrack& track = MillionChunkTrack::Get();
    TrackDB db;
    if (!db.Open(track.Directory(), kMillionTrackId)) {
        state.SkipWithError("cannot open the track database");
        return;
    }
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        std::vector<FileSystem::Chunk> rows = db.GetAllChunks();
        state.SetIterationTime(Seconds(start));
        benchmark::DoNotOptimize(rows.data());
    }
    state.counters["chunks_per_s"] = benchmark::Counter(
        static_cast<double>(kMillionChunks), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ReadAllRows)->UseManualTime()->Unit(benchmark::kMillisecond);

// Resident bytes now and at the peak since ResetPeakResident, from
// /proc/self/status (kB lines).
double StatusBytes(const char* field) {
    double bytes = 0;
    if (FILE* status = fopen("/proc/self/status", "r")) {
        char line[256];
        const size_t length = strlen(field);
        while (fgets(line, sizeof(line), status) != nullptr) {
            if (strncmp(line, field, length) == 0)
                bytes = 1024.0 * strtod(line + length, nullptr);
        }
        fclose(status);
    }
    return bytes;
}

// Makes the peak resident size start again from the current one.
void ResetPeakResident() {
    if (FILE* clear = fopen("/proc/self/clear_refs", "w")) {
        fputs("5", clear);
        fclose(clear);
    }
}

// What a rebuilt index keeps: heap and resident growth across OpenDatabase
// of the million-chunk track, per chunk, and the resident peak on the way.
// Time is the rebuild.
void BM_RebuildMemory(benchmark::State& state) {
    const MillionChunkTrack& track = MillionChunkTrack::Get();
    for (auto _ : state) {
        malloc_trim(0);
        ResetPeakResident();
        const double residentBefore = StatusBytes("VmRSS:");
        const Footprint before = Footprint::Now();
        auto manager = std::make_unique<LoopRecordingFileManager>(kMillionTrackId);
        manager->OpenDatabase(track.Directory());
        ReportGrowth(state, before, kMillionChunks);
        state.counters["peak_rss_B_per_chunk"] =
            (StatusBytes("VmHWM:") - residentBefore) / static_cast<double>(kMillionChunks);
        state.PauseTiming();
        manager.reset();
        state.ResumeTiming();
    }
    state.counters["chunks_per_s"] = benchmark::Counter(
        static_cast<double>(kMillionChunks), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_RebuildMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------------------
// Memory held per indexed chunk

// Time is the fill of one million chunks into an empty track.
void BM_IndexMemory(benchmark::State& state) {
    BenchDir dir("memory");
    for (auto _ : state) {
        auto manager = NewTrack(dir, 1);
        manager->InsertFiles(MakeFiles(1, kMillionFiles, kMillionFileSize, 1));
        malloc_trim(0);
        const Footprint before = Footprint::Now();
        for (int64_t index = 0; index < kMillionChunks; ++index)
            manager->Append(ChunkTime(index), kChunkDuration, kChunkSize);
        ReportGrowth(state, before, kMillionChunks);
        state.counters["estimate_B_per_chunk"] =
            static_cast<double>(manager->GetSizeOnRam()) / static_cast<double>(kMillionChunks);
        state.PauseTiming();
        manager.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_IndexMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_MapMemory(benchmark::State& state) {
    const ChunkFile file(1, 8, kMillionFileSize, 1, 0, true);
    for (auto _ : state) {
        ChunkMap chunks;
        malloc_trim(0);
        const Footprint before = Footprint::Now();
        for (int64_t index = 0; index < kMillionChunks; ++index) {
            FileSystem::Chunk chunk(ChunkTime(index), kChunkDuration,
                                    ChunkLocation(file, kHeaderSize, kChunkSize, 0));
            chunks.emplace_hint(chunks.end(), chunk.timepoint, chunk);
        }
        ReportGrowth(state, before, kMillionChunks);
        state.PauseTiming();
        chunks.clear();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_MapMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
