// Ingest and read speed of the track writer and reader, each as a ratio to
// the plain file I/O that moves the same bytes, measured in the same run.
//
//   ingest ratio = (time of plain pwrite + fdatasync per file) / (time of the
//                  writer API for the same chunks, drained and saved)
//   read ratio   = (time of GetChunk) / (time of a plain pread of the record)
//
// Prints one line per case; goals: ingest >= 0.9, read from a file <= 1.2.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Logging/LoggingManager.h"
#include "Platform/Protocol/Protocol.pb.h"
#include "Storage/Indexes/Ram/ChunkCacheManager.h"
#include "Storage/Indexes/Ram/LoopRecordingFileManagers.h"
#include "Storage/Indexes/Ram/NoChunkProtectionFactory.h"
#include "Storage/Server/FileSystem/ChunkCacheTrackReader.h"
#include "Storage/Server/FileSystem/LoopRecordingFileTrackWriter.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int64_t kSecond = 1'000'000'000;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Tracks on disk: `tracks` numbered directories of `filesPerTrack`
// preallocated files each, plus the registries that serve them.
class Store {
  public:
    Store(const std::string& dir, int tracks, int filesPerTrack, unsigned long fileSize)
        : dir_(dir), tracks_(tracks) {
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_ + "/db");
        managers_ = std::make_unique<LoopRecordingFileManagers>(factory_);
        managers_->SetDBTrackDirectory(dir_ + "/db");
        managers_->SetTrackDirectory(dir_ + "/tracks");
        long number = 1;
        for (int t = 1; t <= tracks; ++t) {
            std::filesystem::create_directories(dir_ + "/tracks/" + std::to_string(t));
            std::vector<ChunkFile> files;
            for (int f = 0; f < filesPerTrack; ++f, ++number) {
                ChunkFile file(number, 8, static_cast<long>(fileSize), t);
                Preallocate(file.GetAbsoluteFileName(Root(), false), fileSize);
                files.push_back(file);
            }
            managers_->GetManager(t)->InsertFiles(files);
            files_.push_back(files);
        }
    }
    ~Store() {
        caches_.reset();
        managers_.reset();
        std::filesystem::remove_all(dir_);
    }

    std::string Root() const { return dir_ + "/tracks"; }
    LoopRecordingFileManager& Manager(int t) { return *managers_->GetManager(t); }
    ThreadedChunkCache& Cache(int t) { return *caches_->GetChunkCache(t); }
    const std::vector<ChunkFile>& Files(int t) const { return files_[t - 1]; }

  private:
    static void Preallocate(const std::string& path, unsigned long size) {
        int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        if (fd < 0 || posix_fallocate(fd, 0, static_cast<off_t>(size)) != 0) {
            std::perror(path.c_str());
            std::exit(1);
        }
        close(fd);
    }

    std::string dir_;
    int tracks_;
    NoChunkProtectionFactory factory_;
    std::unique_ptr<LoopRecordingFileManagers> managers_;
    std::unique_ptr<ChunkCacheManager> caches_ = std::make_unique<ChunkCacheManager>();
    std::vector<std::vector<ChunkFile>> files_;
};

// Plain sequential pwrite of `chunks` records of `recordSize` bytes per
// track, round robin over the tracks, through each track's files in order,
// with an fdatasync when a file is full: what the writer does, minus the
// storage.
double PlainWrite(Store& store, int tracks, int chunks, size_t recordSize, unsigned long fileSize) {
    std::string buffer(recordSize, 'x');
    struct Cursor {
        int fd = -1;
        size_t file = 0;
        off_t offset = 16;
    };
    std::vector<Cursor> cursors(tracks);
    auto openFile = [&](int t, Cursor& c) {
        if (c.fd >= 0) {
            fdatasync(c.fd);
            close(c.fd);
        }
        const auto& files = store.Files(t + 1);
        c.fd = open(files[c.file % files.size()].GetAbsoluteFileName(store.Root(), false).c_str(),
                    O_WRONLY);
        c.offset = 16;
        ++c.file;
    };
    auto start = Clock::now();
    for (int i = 0; i < chunks; ++i) {
        for (int t = 0; t < tracks; ++t) {
            Cursor& c = cursors[t];
            if (c.fd < 0 ||
                c.offset + static_cast<off_t>(recordSize) > static_cast<off_t>(fileSize)) {
                openFile(t, c);
            }
            if (pwrite(c.fd, buffer.data(), recordSize, c.offset) !=
                static_cast<ssize_t>(recordSize)) {
                std::perror("pwrite");
                std::exit(1);
            }
            c.offset += static_cast<off_t>(recordSize);
        }
    }
    for (Cursor& c : cursors) {
        fdatasync(c.fd);
        close(c.fd);
    }
    return Seconds(start);
}

// The same chunks through the writer API, one writer per track, from one
// host thread; the time includes draining the caches and saving the files.
double WriterIngest(Store& store, int tracks, int chunks, size_t payloadSize) {
    std::vector<std::unique_ptr<LoopRecordingFileTrackWriter>> writers;
    for (int t = 1; t <= tracks; ++t) {
        writers.push_back(
            std::make_unique<LoopRecordingFileTrackWriter>(t, store.Manager(t), store.Cache(t)));
        writers.back()->SetTrackDirectory(store.Root());
    }
    // The messages exist before the clock starts, as they would in a host
    // that received them; Append moves their payload, never copies it.
    std::vector<Protocol::Chunk> messages(static_cast<size_t>(chunks) * tracks);
    int64_t tp = store.Manager(1).GetEndOfTrack().ToNanoseconds() + kSecond;
    for (int i = 0; i < chunks; ++i, tp += kSecond / 25) {
        for (int t = 0; t < tracks; ++t) {
            Protocol::Chunk& chunk = messages[static_cast<size_t>(i) * tracks + t];
            chunk.mutable_timepoint()->set_nanoseconds(tp);
            chunk.mutable_duration()->set_nanoseconds(kSecond / 25);
            chunk.mutable_data()->assign(payloadSize, 'x');
        }
    }
    auto start = Clock::now();
    for (int i = 0; i < chunks; ++i) {
        for (int t = 0; t < tracks; ++t) {
            writers[t]->Append(messages[static_cast<size_t>(i) * tracks + t]);
        }
    }
    writers.clear();
    return Seconds(start);
}

void IngestCase(const std::string& dir, int tracks, size_t payloadSize, size_t totalBytes) {
    // Three files per track, each holding about half of what the track
    // receives, so that every track loops.
    const unsigned long perTrack = totalBytes / tracks;
    const unsigned long fileSize = std::clamp(perTrack / 2, 4UL << 20, 64UL << 20);
    const int chunks = static_cast<int>(perTrack / payloadSize);
    const int files = 3;
    Store store(dir, tracks, files, fileSize);
    // Warm the files once so both sides write to allocated, cached pages.
    PlainWrite(store, tracks, chunks, payloadSize + 52, fileSize);
    double plain = PlainWrite(store, tracks, chunks, payloadSize + 52, fileSize);
    double ours = WriterIngest(store, tracks, chunks, payloadSize);
    const double gb = static_cast<double>(chunks) * tracks * payloadSize / 1e9;
    std::printf(
        "ingest %3d tracks, %7zu B chunks: plain %6.2f GB/s, writer %6.2f GB/s, ratio %.2f\n",
        tracks, payloadSize, gb / plain, gb / ours, plain / ours);
}

void ReadCase(const std::string& dir, size_t payloadSize) {
    const unsigned long fileSize = 64UL << 20;
    Store store(dir, 1, 2, fileSize);
    const int chunks = static_cast<int>(32UL << 20) / static_cast<int>(payloadSize);
    WriterIngest(store, 1, chunks, payloadSize);
    LoopRecordingFileManager& manager = store.Manager(1);
    ChunkCacheTrackReader reader(1, manager, store.Cache(1));
    reader.SetTrackDirectory(store.Root());
    std::vector<FileSystem::Chunk> indexed;
    for (const auto& [key, block] : manager.GetBlocks()) {
        for (const auto& [tp, chunk] : block.GetChunks())
            indexed.push_back(chunk);
    }
    std::string buffer(payloadSize + 52, '\0');
    auto timeReads = [&](auto read) {
        read(indexed.front());  // warm
        auto start = Clock::now();
        for (const FileSystem::Chunk& c : indexed)
            read(c);
        return Seconds(start) / static_cast<double>(indexed.size());
    };
    auto plainRead = [&](const FileSystem::Chunk& c) {
        int fd = open(c.location.file.GetAbsoluteFileName(store.Root(), false).c_str(), O_RDONLY);
        ssize_t n =
            ::pread(fd, buffer.data(), c.location.size, static_cast<off_t>(c.location.offset));
        close(fd);
        if (n != static_cast<ssize_t>(c.location.size))
            std::exit(1);
    };
    std::set<std::string> keys;
    // Like the plain side's buffer, the message is reused from read to read.
    Protocol::Chunk out;
    auto storageRead = [&](const FileSystem::Chunk& c) {
        bool found = false;
        reader.GetChunk(c, keys, out, found);
    };
    // Alternate rounds of both sides and keep each side's median, so that
    // load from elsewhere on the machine hits both alike.
    constexpr int kRounds = 7;
    std::vector<double> preads, files;
    for (int round = 0; round < kRounds; ++round) {
        preads.push_back(timeReads(plainRead));
        files.push_back(timeReads(storageRead));
    }
    std::sort(preads.begin(), preads.end());
    std::sort(files.begin(), files.end());
    const double pread = preads[kRounds / 2];
    const double file = files[kRounds / 2];
    std::printf("read %7zu B chunks from files: pread %7.1f us, GetChunk %7.1f us, ratio %.2f\n",
                payloadSize, pread * 1e6, file * 1e6, file / pread);

    // The same chunks again while a writer keeps them in the track's cache.
    LoopRecordingFileTrackWriter writer(1, manager, store.Cache(1));
    writer.SetTrackDirectory(store.Root());
    int64_t tp = manager.GetEndOfTrack().ToNanoseconds();
    const int cached =
        static_cast<int>(std::min<size_t>(indexed.size(), (16UL << 20) / payloadSize));
    for (int i = 0; i < cached; ++i, tp += kSecond / 25) {
        Protocol::Chunk chunk;
        chunk.mutable_timepoint()->set_nanoseconds(tp);
        chunk.mutable_duration()->set_nanoseconds(kSecond / 25);
        chunk.mutable_data()->assign(payloadSize, 'y');
        writer.Append(chunk);
    }
    store.Cache(1).Stop();  // every chunk flushed and indexed, still cached
    store.Cache(1).Run();
    std::vector<FileSystem::Chunk> recent;
    for (const auto& [key, block] : manager.GetBlocks()) {
        for (const auto& [t, chunk] : block.GetChunks()) {
            if (t.ToNanoseconds() >= tp - cached * (kSecond / 25))
                recent.push_back(chunk);
        }
    }
    indexed = recent;
    std::vector<double> caches;
    preads.clear();
    for (int round = 0; round < kRounds; ++round) {
        preads.push_back(timeReads(plainRead));
        caches.push_back(timeReads(storageRead));
    }
    std::sort(preads.begin(), preads.end());
    std::sort(caches.begin(), caches.end());
    std::printf("read %7zu B chunks from cache: pread %7.1f us, GetChunk %7.1f us, ratio %.2f\n",
                payloadSize, preads[kRounds / 2] * 1e6, caches[kRounds / 2] * 1e6,
                caches[kRounds / 2] / preads[kRounds / 2]);
}

}  // namespace

int main(int argc, char** argv) {
    // Waiting for cache room is expected under full load: keep the log quiet.
    tav::mr::logging::LoggingManager::ConfigureConsole(50);
    std::string dir =
        argc > 1 ? argv[1] : std::filesystem::temp_directory_path() / "loopstore-bench";
    // Optional filters, to profile one case: "ingest" or "read", then the
    // payload size in bytes, then (ingest) the number of tracks.
    const std::string only = argc > 2 ? argv[2] : "";
    const size_t onlyPayload = argc > 3 ? std::stoul(argv[3]) : 0;
    const int onlyTracks = argc > 4 ? std::stoi(argv[4]) : 0;
    const size_t total = 768UL << 20;
    for (size_t payload : {size_t{64} << 10, size_t{1} << 20}) {
        for (int tracks : {1, 10, 100}) {
            if ((only.empty() || only == "ingest") &&
                (onlyPayload == 0 || onlyPayload == payload) &&
                (onlyTracks == 0 || onlyTracks == tracks))
                IngestCase(dir, tracks, payload, total);
        }
    }
    for (size_t payload : {size_t{64} << 10, size_t{1} << 20}) {
        if ((only.empty() || only == "read") && (onlyPayload == 0 || onlyPayload == payload))
            ReadCase(dir, payload);
    }
    return 0;
}
