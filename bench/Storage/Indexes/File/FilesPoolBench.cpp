// Files pool throughput: lending files to a track and taking them back
// (renames plus the "pool.db" writes that record them), and reopening a large
// pool from its database at start-up.
//
//   MoveFiles/10000     files/s of MoveFiles + CloseMoveFilesTransaction
//   RestoreFiles/10000  files/s of RestoreFiles + CloseMoveFilesTransaction
//   OpenDatabase/100000 files/s of OpenDatabase on a pool with nothing in flight
//
// The pool's files are tiny (renames do not depend on size). They live in
// $LOOPSTORE_BENCH_DIR, else $TMPDIR, else /tmp.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Storage/Indexes/File/FilesPool.h"

namespace {

constexpr unsigned long kFileSize = 16;

// A pool directory of `nbFiles` files, a tracks root with track 1 and a linked
// "pool.db"; everything is removed at destruction.
class BenchPool {
  public:
    explicit BenchPool(long nbFiles) {
        const char* base = getenv("LOOPSTORE_BENCH_DIR");
        if (base == nullptr) {
            base = getenv("TMPDIR");
        }
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/poolbench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        }
        root_ = pattern;
        std::filesystem::create_directories(PoolDir());
        std::filesystem::create_directories(TracksDir() + "/1");
        std::filesystem::create_directories(DbDir());
        for (long number = 1; number <= nbFiles; ++number) {
            CreateFile(ChunkFile(number, 8, 0, 0).GetAbsoluteFileName(PoolDir(), true));
        }
        FilesPool pool;
        pool.OpenDatabase(DbDir());
        pool.SetTrackDirectory(TracksDir());
        pool.LinkToDirectory(PoolDir());
    }
    ~BenchPool() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

    std::string PoolDir() const { return root_ + "/pool"; }
    std::string TracksDir() const { return root_ + "/tracks"; }
    std::string DbDir() const { return root_ + "/db"; }

  private:
    static void CreateFile(const std::string& path) {
        const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
        if (fd < 0 || ftruncate(fd, kFileSize) != 0) {
            throw std::runtime_error("cannot create " + path);
        }
        close(fd);
    }

    std::string root_;
};

std::unique_ptr<FilesPool> Open(const BenchPool& bench) {
    auto pool = std::make_unique<FilesPool>();
    pool->OpenDatabase(bench.DbDir());
    return pool;
}

void BM_MoveFiles(benchmark::State& state) {
    const long nbFiles = state.range(0);
    BenchPool bench(nbFiles);
    auto pool = Open(bench);
    std::vector<ChunkFile> moved;
    for (auto _ : state) {
        pool->MoveFiles(1, nbFiles * kFileSize, moved, 0);
        pool->CloseMoveFilesTransaction();
        state.PauseTiming();
        pool->RestoreFiles(moved, 0);
        pool->CloseMoveFilesTransaction();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * nbFiles);
}

void BM_RestoreFiles(benchmark::State& state) {
    const long nbFiles = state.range(0);
    BenchPool bench(nbFiles);
    auto pool = Open(bench);
    std::vector<ChunkFile> moved;
    for (auto _ : state) {
        state.PauseTiming();
        pool->MoveFiles(1, nbFiles * kFileSize, moved, 0);
        pool->CloseMoveFilesTransaction();
        state.ResumeTiming();
        pool->RestoreFiles(moved, 0);
        pool->CloseMoveFilesTransaction();
    }
    state.SetItemsProcessed(state.iterations() * nbFiles);
}

void BM_OpenDatabase(benchmark::State& state) {
    const long nbFiles = state.range(0);
    BenchPool bench(nbFiles);
    for (auto _ : state) {
        FilesPool pool;
        benchmark::DoNotOptimize(pool.OpenDatabase(bench.DbDir()));
        benchmark::DoNotOptimize(pool.GetRemainingSpace());
    }
    state.SetItemsProcessed(state.iterations() * nbFiles);
}

BENCHMARK(BM_MoveFiles)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_RestoreFiles)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_OpenDatabase)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
