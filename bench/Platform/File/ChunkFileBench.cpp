// Chunk file throughput against the plain system calls it is built on.
//
// Pairs to compare (bytes/s):
//   Appender/N      vs PlainPwrite/N   goal: appender >= 0.95 x plain pwrite
//   ReaderGetChunk/N vs PlainPread/N   goal: reader time <= 1.2 x plain pread
// Files are preallocated in $LOOPSTORE_BENCH_DIR, else $TMPDIR, else /tmp;
// reads run with the page cache warm.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Platform/File/ChunkRecordChecksum.h"
#include "Platform/File/DataChunkFileAppender.h"
#include "Platform/File/DataChunkFileReader.h"
#include "Platform/Plexa/DataChunk.h"

namespace {

using Moreld::File::DataChunkFileAppender;
using Moreld::File::DataChunkFileReader;
using Moreld::Plexa::DataChunk;
using Moreld::Time::TimePoint;

constexpr uint64_t kFileSize = uint64_t{256} << 20;
// Reads cycle over this much of the file, small enough to stay in the page cache.
constexpr uint64_t kReadSpan = uint64_t{64} << 20;

// A preallocated file in a fresh directory, removed at destruction.
class BenchFile {
  public:
    explicit BenchFile(uint64_t size) {
        const char* base = getenv("LOOPSTORE_BENCH_DIR");
        if (base == nullptr) {
            base = getenv("TMPDIR");
        }
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/chunkbench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        }
        dir_ = pattern;
        path_ = dir_ + "/00000001";
        int fd = open(path_.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
        if (fd < 0 || posix_fallocate(fd, 0, static_cast<off_t>(size)) != 0) {
            throw std::runtime_error("cannot preallocate " + path_);
        }
        close(fd);
    }
    ~BenchFile() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    const std::string& Path() const { return path_; }

  private:
    std::string dir_;
    std::string path_;
};

DataChunk MakeChunk(int64_t index, size_t payloadSize) {
    std::string payload(payloadSize, '\0');
    for (size_t i = 0; i < payloadSize; i += 64) {
        payload[i] = static_cast<char>(i + static_cast<size_t>(index));
    }
    DataChunk chunk(TimePoint::FromMilliseconds(40 * index), TimePoint::FromMilliseconds(40),
                    std::move(payload));
    chunk.SetProperty("tav-chunk-number", std::to_string(index));
    return chunk;
}

class Fd {
  public:
    Fd(const std::string& path, int flags) : fd_(open(path.c_str(), flags)) {
        if (fd_ < 0) {
            throw std::runtime_error("cannot open " + path);
        }
    }
    ~Fd() { close(fd_); }
    int Get() const { return fd_; }

  private:
    int fd_;
};

void Appender(benchmark::State& state) {
    const DataChunk chunk = MakeChunk(1, static_cast<size_t>(state.range(0)));
    const uint64_t size = chunk.GetSizeOnFile();
    BenchFile file(kFileSize);
    DataChunkFileAppender appender(file.Path(), false, kFileSize);
    appender.SetNoFlush(true);
    for (auto _ : state) {
        if (appender.GetTail() + size > kFileSize) {
            appender.Append(chunk, 16);  // wrap around: a new generation
        } else {
            appender.Append(chunk);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void PlainPwrite(benchmark::State& state) {
    const DataChunk chunk = MakeChunk(1, static_cast<size_t>(state.range(0)));
    const uint64_t size = chunk.GetSizeOnFile();
    const std::string bytes(size, 'x');
    BenchFile file(kFileSize);
    Fd fd(file.Path(), O_WRONLY);
    uint64_t offset = 16;
    for (auto _ : state) {
        if (offset + size > kFileSize) {
            offset = 16;
        }
        if (pwrite(fd.Get(), bytes.data(), size, static_cast<off_t>(offset)) !=
            static_cast<ssize_t>(size)) {
            state.SkipWithError("pwrite failed");
            break;
        }
        offset += size;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void Checksum(benchmark::State& state) {
    const std::string bytes = MakeChunk(1, static_cast<size_t>(state.range(0))).GetData();
    for (auto _ : state) {
        Moreld::File::ChunkRecordChecksum checksum;
        checksum.Update(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(checksum.Digest());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

// The library's plain entry point, built for the baseline CPU: shows what the
// run-time dispatch of ChunkRecordChecksum gains.
void ChecksumBaselineCpu(benchmark::State& state) {
    const std::string bytes = MakeChunk(1, static_cast<size_t>(state.range(0))).GetData();
    for (auto _ : state) {
        benchmark::DoNotOptimize(XXH3_64bits(bytes.data(), bytes.size()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

// A file whose first kReadSpan bytes hold records of `payloadSize` bytes.
struct ReadFixture {
    explicit ReadFixture(size_t payloadSize) : file(kReadSpan + (uint64_t{1} << 20)) {
        DataChunkFileAppender appender(file.Path(), false, kReadSpan);
        appender.SetNoFlush(true);
        recordSize = MakeChunk(0, payloadSize).GetSizeOnFile();
        for (int64_t i = 0; appender.GetTail() + recordSize <= kReadSpan; ++i) {
            offsets.push_back(appender.GetTail());
            appender.Append(MakeChunk(i, payloadSize));
        }
    }
    BenchFile file;
    std::vector<uint64_t> offsets;
    uint64_t recordSize = 0;
};

void ReaderGetChunk(benchmark::State& state) {
    ReadFixture fixture(static_cast<size_t>(state.range(0)));
    DataChunkFileReader reader(fixture.file.Path());
    const std::set<std::string> keys = {"tav-chunk-number"};
    DataChunk out;
    size_t next = 0;
    for (auto _ : state) {
        reader.GetChunk(out, fixture.offsets[next], keys);
        benchmark::DoNotOptimize(out.GetData().data());
        next = next + 1 == fixture.offsets.size() ? 0 : next + 1;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fixture.recordSize));
}

void PlainPread(benchmark::State& state) {
    ReadFixture fixture(static_cast<size_t>(state.range(0)));
    Fd fd(fixture.file.Path(), O_RDONLY);
    std::string buffer(fixture.recordSize, '\0');
    size_t next = 0;
    for (auto _ : state) {
        if (pread(fd.Get(), buffer.data(), buffer.size(),
                  static_cast<off_t>(fixture.offsets[next])) !=
            static_cast<ssize_t>(buffer.size())) {
            state.SkipWithError("pread failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.data());
        next = next + 1 == fixture.offsets.size() ? 0 : next + 1;
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fixture.recordSize));
}

// What power-failure recovery pays per file: a full scan with checksums.
void ScanTimePoints(benchmark::State& state) {
    ReadFixture fixture(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        DataChunkFileAppender appender(fixture.file.Path(), true, kReadSpan);
        benchmark::DoNotOptimize(appender.GetTimePoints().size());
    }
    state.SetBytesProcessed(
        static_cast<int64_t>(state.iterations() * fixture.recordSize * fixture.offsets.size()));
}

constexpr int64_t k64KiB = 64 << 10;
constexpr int64_t k1MiB = 1 << 20;

BENCHMARK(Appender)->Arg(k64KiB)->Arg(k1MiB);
BENCHMARK(PlainPwrite)->Arg(k64KiB)->Arg(k1MiB);
BENCHMARK(Checksum)->Arg(k64KiB)->Arg(k1MiB);
BENCHMARK(ChecksumBaselineCpu)->Arg(k64KiB)->Arg(k1MiB);
BENCHMARK(ReaderGetChunk)->Arg(k64KiB)->Arg(k1MiB);
BENCHMARK(PlainPread)->Arg(k64KiB)->Arg(k1MiB);
BENCHMARK(ScanTimePoints)->Arg(k1MiB)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
