#include "Host/Cli/DemoRunner.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Recorder.h"
#include "Host/Cli/TestPatternChunkSource.h"
#include "Host/Media/MediaLog.h"
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

Moreld::Time::TimePoint Times(Moreld::Time::TimePoint t, int64_t n) {
    return Moreld::Time::TimePoint::FromNanoseconds(t.ToNanoseconds() * n);
}

size_t Hash(const std::string& bytes) {
    return std::hash<std::string_view>{}(bytes);
}

// Passes a source's chunks on, telling `seen` of each with its time point.
class WatchedSource : public IChunkSource {
  public:
    using Seen = std::function<void(Moreld::Time::TimePoint, const std::string&)>;
    WatchedSource(IChunkSource& source, Seen seen) : source_(source), seen_(std::move(seen)) {}
    bool Next(Moreld::Time::TimePoint start, SourceChunk& out) override {
        if (!source_.Next(start, out))
            return false;
        seen_(start, out.payload);
        return true;
    }

  private:
    IChunkSource& source_;
    Seen seen_;
};

// An in-process server on a free loopback port, with HTTP on `httpAddress`
// unless empty, stopped when it goes.
class DemoServer {
  public:
    DemoServer(const DataLayout& layout, const std::string& httpAddress) {
        host::ServerOptions options;
        options.tracksDir = layout.tracks;
        options.dbDir = layout.db;
        options.poolDir = layout.pool;
        options.listenAddress = "127.0.0.1:0";
        options.httpAddress = httpAddress;
        server_ = std::make_unique<host::LoopstoreServer>(options);
        server_->Start();
        client_ =
            std::make_unique<StorageClient>("127.0.0.1:" + std::to_string(server_->Port()), "");
    }
    StorageClient& Client() { return *client_; }
    std::string Address() const { return "127.0.0.1:" + std::to_string(server_->Port()); }
    int HttpPort() const { return server_->HttpPort(); }

  private:
    std::unique_ptr<host::LoopstoreServer> server_;
    std::unique_ptr<StorageClient> client_;
};

}  // namespace

DemoRunner::DemoRunner(Options options, std::ostream& log)
    : options_(std::move(options)), log_(log) {}

DemoRunner::Summary DemoRunner::Run() {
    const Clock::time_point began = Clock::now();
    // libx264 reports every encoder it opens.
    media::MediaLog::Quiet();
    ScratchDirectory scratch(options_.dataDirectory);
    layout_ = DataLayout::Under(scratch.Path());
    const uint64_t poolFiles = options_.filesPerTrack * static_cast<uint64_t>(options_.tracks) + 4 +
                               (options_.keepServing ? options_.liveFiles * LiveTracks() : 0);
    layout_.Prepare(poolFiles, options_.fileSize);
    log_ << "store in " << scratch.Path() << ": pool of " << poolFiles << " files of "
         << options_.fileSize << " B" << std::endl;
    Summary summary;
    std::vector<Track> tracks;
    {
        DemoServer server(layout_, "");
        tracks = CreateTracks(server.Client());
        RecordAll(server.Client(), tracks, summary);
        CheckProtectionSurvived(server.Client(), tracks.front());
        VerifyAll(server.Client(), tracks, summary, "before restart");
    }
    log_ << "server stopped; restarting on the same store" << std::endl;
    {
        DemoServer server(layout_, options_.keepServing ? options_.httpAddress : "");
        CheckProtectionSurvived(server.Client(), tracks.front());
        const uint64_t before = summary.chunksVerified;
        VerifyAll(server.Client(), tracks, summary, "after restart");
        if (summary.chunksVerified != before)
            throw CliError("after the restart the store holds " +
                           std::to_string(summary.chunksVerified) + " chunks instead of " +
                           std::to_string(before));
        if (options_.keepServing)
            RecordLive(server.Client(), server.Address(), server.HttpPort(), tracks);
    }
    summary.tracks = options_.tracks;
    summary.loops = static_cast<double>(summary.bytesWritten) /
                    static_cast<double>(options_.fileSize * options_.filesPerTrack * tracks.size());
    summary.totalSeconds = Since(began);
    return summary;
}

std::vector<DemoRunner::Track> DemoRunner::CreateTracks(StorageClient& client) {
    std::vector<Track> tracks;
    // Whole seconds keep the printed times short; an hour back leaves room
    // for what is recorded faster than real time to end before now.
    const TimePoint start =
        TimePoint::FromSeconds(TimePoint::Now().ToNanoseconds() / 1'000'000'000 - 3600);
    for (int i = 0; i < options_.tracks; ++i) {
        const int64_t id = client.CreateTrack(0, options_.fileSize * options_.filesPerTrack);
        tracks.push_back(Track{id, start});
        log_ << "created track " << id << " of " << options_.filesPerTrack << " files" << std::endl;
    }
    return tracks;
}

uint64_t DemoRunner::BytesPerTrack() const {
    return static_cast<uint64_t>(options_.loops * static_cast<double>(options_.fileSize) *
                                 static_cast<double>(options_.filesPerTrack));
}

void DemoRunner::RecordAll(StorageClient& client, const std::vector<Track>& tracks,
                           Summary& summary) {
    // The first part stays within the first file of the first track, so the
    // protected range is still there to protect.
    const TimePoint head = Times(options_.chunkDuration, 3);
    const Clock::time_point began = Clock::now();
    for (const Track& track : tracks) {
        const uint64_t before = summary.bytesWritten;
        const TimePoint middle = Record(client, track, track.start, head, 0, summary);
        if (&track == &tracks.front())
            ProtectFirstTrack(client, track);
        const uint64_t rest = BytesPerTrack() - (summary.bytesWritten - before);
        const TimePoint end = Record(client, track, middle, TimePoint(), rest, summary);
        log_ << "recorded track " << track.id << ": " << (end - track.start).ToDurationString()
             << " of video" << std::endl;
    }
    summary.recordSeconds = Since(began);
}

DemoRunner::TimePoint DemoRunner::Record(StorageClient& client, const Track& track, TimePoint from,
                                         TimePoint duration, uint64_t bytes, Summary& summary) {
    TestPatternChunkSource::Options o;
    o.chunkDuration = options_.chunkDuration;
    o.totalDuration = duration;
    o.totalBytes = bytes;
    o.snow = true;
    TestPatternChunkSource pattern(track.id, o);
    WatchedSource source(pattern, [&](TimePoint at, const std::string& payload) {
        written_[{track.id, at.ToNanoseconds()}] = ChunkPrint{payload.size(), Hash(payload)};
    });
    const Recorder::Summary s = Recorder(client, track.id).Run(source, from);
    summary.chunksWritten += s.chunks;
    summary.bytesWritten += s.bytes;
    return s.end;
}

void DemoRunner::ProtectFirstTrack(StorageClient& client, const Track& track) {
    protectedTrack_ = track.id;
    protectedFrom_ = track.start + options_.chunkDuration;
    protectedTo_ = track.start + Times(options_.chunkDuration, 3);
    const int64_t id =
        client.Protect(track.id, protectedFrom_, protectedTo_ - protectedFrom_, "demo");
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
    const std::string name = "track " + std::to_string(track.id);
    TimePoint expected = begin;
    int gaps = 0;
    const uint64_t read = client.Export(track.id, begin, end, [&](const Protocol::Chunk& chunk) {
        const TimePoint tp = Converter::From(chunk.timepoint());
        if (tp < expected)
            throw CliError(name + ": the chunk at " + tp.ToString() + " is out of order");
        // Recycling leaves one hole, after the protected file.
        gaps += tp > expected ? 1 : 0;
        const auto print = written_.find({track.id, tp.ToNanoseconds()});
        if (print == written_.end() || print->second.size != chunk.data().size() ||
            print->second.hash != Hash(chunk.data()))
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

size_t DemoRunner::LiveTracks() const {
    return std::min<size_t>(2, static_cast<size_t>(options_.tracks));
}

void DemoRunner::RecordLive(StorageClient& client, const std::string& address, int httpPort,
                            const std::vector<Track>& tracks) {
    const size_t live = LiveTracks();
    for (size_t i = 0; i < live; ++i)
        client.GrowTrack(tracks[i].id,
                         static_cast<int64_t>(options_.liveFiles * options_.fileSize));
    std::vector<std::thread> recorders;
    std::vector<std::string> errors(live);
    for (size_t i = 0; i < live; ++i)
        recorders.emplace_back([&, i] {
            try {
                StorageClient client(address, "");
                TestPatternChunkSource::Options o;
                o.chunkDuration = options_.chunkDuration;
                o.paced = true;
                o.stop = options_.stop;
                TestPatternChunkSource source(tracks[i].id, o);
                Recorder::Options r;
                r.clock = Recorder::Clock::kWall;
                r.stop = options_.stop;
                Recorder(client, tracks[i].id).Run(source, r);
            } catch (const std::exception& e) {
                errors[i] = e.what();
            }
        });
    log_ << "recording live on " << live << " tracks; Ctrl-C stops" << std::endl;
    if (options_.announce != nullptr)
        *options_.announce << "open http://127.0.0.1:" << httpPort << "/" << std::endl;
    for (std::thread& t : recorders)
        t.join();
    for (size_t i = 0; i < live; ++i)
        if (!errors[i].empty())
            throw CliError("live recording on track " + std::to_string(tracks[i].id) + ": " +
                           errors[i]);
    log_ << "live recording stopped" << std::endl;
}

}  // namespace loopstore::cli
