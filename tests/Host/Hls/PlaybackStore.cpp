#include "tests/Host/Hls/PlaybackStore.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

#include "Host/Cli/MpegTsChunker.h"
#include "Host/Hls/HlsRoutes.h"

namespace loopstore::test {

namespace {

using MoreldStorageApi::ITrackReader;

Protocol::TimePoint Proto(int64_t ns) {
    Protocol::TimePoint t;
    t.set_nanoseconds(ns);
    return t;
}

// Lends the store's readers to the service under test.
class LentReaders : public MoreldStorageApi::ITrackReaderFactory {
  public:
    explicit LentReaders(MoreldStorageApi::ITrackReaderFactory& readers) : readers_(readers) {}
    ITrackReader* Create(const long& trackId) override { return readers_.Create(trackId); }

  private:
    MoreldStorageApi::ITrackReaderFactory& readers_;
};

// Lists chunks by reading the track from its beginning; chunks are
// numbered from there.
class WalkingTimeline : public MoreldStorageApi::ITrackTimeline {
  public:
    explicit WalkingTimeline(MoreldStorageApi::ITrackReaderFactory& readers) : readers_(readers) {}

    void ListChunks(const long& trackId, const Protocol::TimePoint& from,
                    const Protocol::TimePoint& to, const long& limit,
                    Protocol::ChunkSpans& chunks) override {
        std::unique_ptr<ITrackReader> reader(readers_.Create(trackId));
        Protocol::Chunk chunk;
        bool found = false;
        uint64_t sequence = 0;
        reader->GetNextChunk(Proto(-1), Protocol::KeyList(), chunk, found);
        for (; found; ++sequence) {
            const int64_t start = chunk.timepoint().nanoseconds();
            if (start >= to.nanoseconds())
                break;
            if (start + chunk.duration().nanoseconds() > from.nanoseconds()) {
                if (chunks.chunks_size() == limit) {
                    chunks.set_truncated(true);
                    break;
                }
                Protocol::ChunkSpan& span = *chunks.add_chunks();
                *span.mutable_timepoint() = chunk.timepoint();
                *span.mutable_duration() = chunk.duration();
                span.set_size(chunk.data().size());
                span.set_sequence(sequence);
            }
            reader->GetNextChunk(Proto(start), Protocol::KeyList(), chunk, found);
        }
    }
    void GetRecordedRanges(const long&, const Protocol::TimePoint&, const Protocol::TimePoint&,
                           const Protocol::TimePoint&, Protocol::TimeRanges&) override {
        throw std::runtime_error("not used by playback");
    }
    // Only the oldest and newest time points.
    void GetTrackStatistics(const Protocol::Ids& ids,
                            Protocol::TrackStatisticsList& statistics) override {
        for (const long id : ids.ids()) {
            std::unique_ptr<ITrackReader> reader;
            try {
                reader.reset(readers_.Create(id));
            } catch (const std::runtime_error&) {
                continue;
            }
            Protocol::TrackStatistics& track = *statistics.add_tracks();
            track.set_track_id(id);
            Protocol::Chunk first, last;
            bool found = false;
            reader->GetNextChunk(Proto(-1), Protocol::KeyList(), first, found);
            track.mutable_oldest()->set_nanoseconds(found ? first.timepoint().nanoseconds() : -1);
            reader->GetPreviousChunk(Proto(INT64_MAX), Protocol::KeyList(), last, found);
            track.mutable_newest()->set_nanoseconds(
                found ? last.timepoint().nanoseconds() + last.duration().nanoseconds() : -1);
        }
    }

  private:
    MoreldStorageApi::ITrackReaderFactory& readers_;
};

// Splits "path?a=1&b=2".
host::HttpRequest Request(const std::string& target) {
    host::HttpRequest request;
    request.method = "GET";
    const auto question = target.find('?');
    request.path = target.substr(0, question);
    if (question == std::string::npos)
        return request;
    std::istringstream query(target.substr(question + 1));
    std::string pair;
    while (std::getline(query, pair, '&')) {
        const auto equals = pair.find('=');
        request.query[pair.substr(0, equals)] =
            equals == std::string::npos ? "" : pair.substr(equals + 1);
    }
    return request;
}

}  // namespace

PlaybackStore::PlaybackStore(bool withTimeline) : storage_(16) {
    storage_.CreateTrack(kTrack, 16);
    service_.SetTrackReaderFactory(std::make_unique<LentReaders>(storage_.Readers()));
    if (withTimeline)
        service_.SetTrackTimeline(std::make_unique<WalkingTimeline>(storage_.Readers()));
    host::AddHlsRoutes(router_, service_);
}

PlaybackStore::~PlaybackStore() = default;

void PlaybackStore::Append(int64_t start, int64_t duration, const std::string& bytes) {
    if (!writer_)
        writer_.reset(storage_.Writers().Create(kTrack));
    Protocol::Chunk chunk;
    chunk.mutable_timepoint()->set_nanoseconds(start);
    chunk.mutable_duration()->set_nanoseconds(duration);
    chunk.set_data(bytes);
    writer_->Append(chunk);
    long stored = 0;
    writer_->WaitUntilStored(stored);
}

host::HttpResponse PlaybackStore::Get(const std::string& target) const {
    return router_.Route(Request(target));
}

std::vector<int64_t> PlaybackStore::Record(const std::vector<cli::SourceChunk>& chunks,
                                           int64_t start, size_t pauseBefore, int64_t pause) {
    std::vector<int64_t> starts;
    for (size_t i = 0; i < chunks.size(); ++i) {
        if (i == pauseBefore)
            start += pause;
        starts.push_back(start);
        Append(start, chunks[i].duration.ToNanoseconds(), chunks[i].payload);
        start += chunks[i].duration.ToNanoseconds();
    }
    return starts;
}

std::vector<cli::SourceChunk> CameraChunks(const TempDir& dir, int seconds, int gop) {
    const std::string path = dir / "camera.ts";
    EXPECT_EQ(RunShell("ffmpeg -loglevel error -f lavfi -i testsrc2=size=320x180:rate=25 -t " +
                       std::to_string(seconds) + " -c:v libx264 -g " + std::to_string(gop) +
                       " -b:v 150k -muxdelay 0 -muxpreload 0 -f mpegts -y " + path),
              0);
    cli::MpegTsChunker chunker(Moreld::Time::TimePoint::FromSeconds(1), 48 * 1024);
    chunker.Feed(ReadFile(path));
    chunker.Finish();
    return {chunker.Ready().begin(), chunker.Ready().end()};
}

std::string Header(const host::HttpResponse& response, const std::string& name) {
    for (const auto& [key, value] : response.headers)
        if (key == name)
            return value;
    return "";
}

int RunShell(const std::string& command) {
    return std::system(command.c_str());
}

bool HasProgram(const std::string& name) {
    return RunShell("command -v " + name + " > /dev/null 2>&1") == 0;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace loopstore::test
