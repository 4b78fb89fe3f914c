#include "Host/Cli/DemoRunner.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Recorder.h"
#include "Host/Cli/SyntheticChunkSource.h"
#include "Host/Cli/SyntheticPayload.h"
#include "Host/Server/LoopstoreServer.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A temporary directory removed with its content when the demo ends.
class ScratchDirectory {
  public:
    explicit ScratchDirectory(const std::string& given) : path_(given) {
        if (!path_.empty())
            return;
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/loopstore-demo-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            throw CliError("cannot create a temporary directory in " + pattern);
        path_ = pattern;
        owned_ = true;
    }
    ~ScratchDirectory() {
        std::error_code ec;
        if (owned_)
            std::filesystem::remove_all(path_, ec);
    }
    const std::string& Path() const { return path_; }

  private:
    std::string path_;
    bool owned_ = false;
};

// An in-process server on a free loopback port, stopped when it goes.
class DemoServer {
  public:
    explicit DemoServer(const DataLayout& layout) {
        host::ServerOptions options;
        options.tracksDir = layout.tracks;
        options.dbDir = layout.db;
        options.poolDir = layout.pool;
        options.listenAddress = "127.0.0.1:0";
        server_ = std::make_unique<host::LoopstoreServer>(options);
        server_->Start();
        client_ =
            std::make_unique<StorageClient>("127.0.0.1:" + std::to_string(server_->Port()), "");
    }
    StorageClient& Client() { return *client_; }

  private:
    std::unique_ptr<host::LoopstoreServer> server_;
    std::unique_ptr<StorageClient> client_;
};

}  // namespace

DemoRunner::DemoRunner(Options options, std::ostream& log)
    : options_(std::move(options)), log_(log) {}

DemoRunner::Summary DemoRunner::Run() {
    const Clock::time_point began = Clock::now();
    ScratchDirectory scratch(options_.dataDirectory);
    layout_ = DataLayout::Under(scratch.Path());
    const uint64_t poolFiles = options_.filesPerTrack * static_cast<uint64_t>(options_.tracks) + 4;
    layout_.Prepare(poolFiles, options_.fileSize);
    log_ << "store in " << scratch.Path() << ": pool of " << poolFiles << " files of "
         << options_.fileSize << " B" << std::endl;
    Summary summary;
    std::vector<Track> tracks;
    {
        DemoServer server(layout_);
        tracks = CreateTracks(server.Client());
        RecordAll(server.Client(), tracks, summary);
        CheckProtectionSurvived(server.Client(), tracks.front());
        VerifyAll(server.Client(), tracks, summary, "before restart");
    }
    log_ << "server stopped; restarting on the same store" << std::endl;
    {
        DemoServer server(layout_);
        CheckProtectionSurvived(server.Client(), tracks.front());
        const uint64_t before = summary.chunksVerified;
        VerifyAll(server.Client(), tracks, summary, "after restart");
        if (summary.chunksVerified != before)
            throw CliError("after the restart the store holds " +
                           std::to_string(summary.chunksVerified) + " chunks instead of " +
                           std::to_string(before));
    }
    summary.tracks = options_.tracks;
    summary.loops = static_cast<double>(summary.bytesWritten) /
                    static_cast<double>(options_.fileSize * options_.filesPerTrack * tracks.size());
    summary.totalSeconds = Since(began);
    return summary;
}

std::vector<DemoRunner::Track> DemoRunner::CreateTracks(StorageClient& client) {
    std::vector<Track> tracks;
    // Whole milliseconds keep the printed times short.
    const TimePoint start =
        TimePoint::FromMilliseconds(TimePoint::Now().ToNanoseconds() / 1'000'000);
    for (int i = 0; i < options_.tracks; ++i) {
        const int64_t id = client.CreateTrack(0, options_.fileSize * options_.filesPerTrack);
        tracks.push_back(Track{id, start});
        log_ << "created track " << id << " of " << options_.filesPerTrack << " files" << std::endl;
    }
    return tracks;
}

DemoRunner::TimePoint DemoRunner::StreamDuration() const {
    const long double bytes = options_.loops * static_cast<long double>(options_.fileSize) *
                              static_cast<long double>(options_.filesPerTrack);
    return TimePoint::FromNanoseconds(
        static_cast<int64_t>(bytes * 8e9L / static_cast<long double>(options_.bitRate)));
}

void DemoRunner::RecordAll(StorageClient& client, const std::vector<Track>& tracks,
                           Summary& summary) {
    const TimePoint total = StreamDuration();
    // The first part stays within the first file of the first track, so the
    // protected range is still there to protect.
    const TimePoint head = TimePoint::FromSeconds(1);
    const Clock::time_point began = Clock::now();
    for (const Track& track : tracks) {
        Record(client, track, track.start, head, summary);
        if (&track == &tracks.front())
            ProtectFirstTrack(client, track);
        Record(client, track, track.start + head, total - head, summary);
        log_ << "recorded track " << track.id << ": " << total.ToDurationString() << " of stream"
             << std::endl;
    }
    summary.recordSeconds = Since(began);
}

void DemoRunner::Record(StorageClient& client, const Track& track, TimePoint from,
                        TimePoint duration, Summary& summary) {
    SyntheticChunkSource source(track.id, options_.bitRate, options_.chunkDuration, duration);
    const Recorder::Summary s = Recorder(client, track.id).Run(source, from);
    summary.chunksWritten += s.chunks;
    summary.bytesWritten += s.bytes;
}

void DemoRunner::ProtectFirstTrack(StorageClient& client, const Track& track) {
    protectedTrack_ = track.id;
    protectedFrom_ = track.start + TimePoint::FromMilliseconds(200);
    protectedTo_ = track.start + TimePoint::FromMilliseconds(600);
    const int64_t id = client.Protect(track.id, protectedFrom_, protectedTo_ - protectedFrom_);
    log_ << "protected " << protectedFrom_ << " .. " << protectedTo_ << " of track " << track.id
         << " (protection " << id << ")" << std::endl;
}

void DemoRunner::CheckProtectionSurvived(StorageClient& client, const Track& track) {
    const int64_t expected =
        (protectedTo_ - protectedFrom_).ToNanoseconds() / options_.chunkDuration.ToNanoseconds();
    const int64_t held = client.GetNumberOfChunks(track.id, protectedFrom_, protectedTo_);
    if (held < expected)
        throw CliError("the protected range of track " + std::to_string(track.id) + " holds " +
                       std::to_string(held) + " chunks instead of " + std::to_string(expected));
    log_ << "protected range of track " << track.id << " survived looping: " << held << " chunks"
         << std::endl;
}

void DemoRunner::VerifyAll(StorageClient& client, const std::vector<Track>& tracks,
                           Summary& summary, const char* when) {
    summary.chunksVerified = 0;
    summary.bytesVerified = 0;
    for (const Track& track : tracks)
        summary.chunksVerified += VerifyTrack(client, track, summary.bytesVerified);
    log_ << "verified " << summary.chunksVerified << " chunks byte for byte " << when << std::endl;
}

uint64_t DemoRunner::VerifyTrack(StorageClient& client, const Track& track, uint64_t& bytes) {
    const TimePoint begin = client.GetBeginningOfTrack(track.id);
    const TimePoint end = client.GetEndOfTrack(track.id);
    const uint64_t size = SyntheticChunkSource::ChunkSize(options_.bitRate, options_.chunkDuration);
    const std::string name = "track " + std::to_string(track.id);
    TimePoint expected = begin;
    int gaps = 0;
    const uint64_t read = client.Export(track.id, begin, end, [&](const Protocol::Chunk& chunk) {
        const TimePoint tp = Converter::From(chunk.timepoint());
        if (tp < expected)
            throw CliError(name + ": the chunk at " + tp.ToString() + " is out of order");
        // Recycling leaves one hole, after the protected file.
        gaps += tp > expected ? 1 : 0;
        if (chunk.data() != SyntheticPayload::Make(track.id, tp, size))
            throw CliError(name + ": the chunk at " + tp.ToString() +
                           " differs from what was recorded");
        bytes += chunk.data().size();
        expected = tp + Converter::From(chunk.duration());
    });
    const int allowedGaps = track.id == protectedTrack_ ? 1 : 0;
    if (expected != end || gaps > allowedGaps)
        throw CliError(name + ": read back up to " + expected.ToString() + " with " +
                       std::to_string(gaps) + " holes; the track ends at " + end.ToString());
    return read;
}

}  // namespace loopstore::cli
