#include "Host/Cli/Recorder.h"

#include <chrono>
#include <functional>
#include <sstream>

#include "Host/Cli/ChunkBuffer.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/LiveStamper.h"
#include "Host/Cli/Output.h"
#include "Host/Cli/TrackSender.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;

namespace {

// After the input ends, how long to keep trying to reach a server that is
// away; after a stop signal, hardly at all.
constexpr auto kDrainTime = std::chrono::seconds(30);
constexpr auto kDrainTimeAfterStop = std::chrono::seconds(2);

class NullBuffer : public std::streambuf {
  protected:
    int overflow(int c) override { return c; }
};

bool Stopped(const Recorder::Options& options) {
    return options.stop != nullptr && options.stop->load();
}

}  // namespace

Recorder::Recorder(StorageClient& client, int64_t trackId) : client_(client), trackId_(trackId) {}

Recorder::TimePoint Recorder::TrackEnd() {
    const TimePoint end = client_.GetEndOfTrack(trackId_);
    const bool empty =
        end.ToNanoseconds() == -1 || client_.GetBeginningOfTrack(trackId_).ToNanoseconds() == -1;
    return empty ? TimePoint::FromNanoseconds(-1) : end;
}

Recorder::Summary Recorder::Run(IChunkSource& source, std::optional<TimePoint> start) {
    Options options;
    options.start = start;
    return Run(source, options);
}

Recorder::Summary Recorder::Run(IChunkSource& source, const Options& options) {
    client_.RequireTrack(trackId_);
    NullBuffer discard;
    std::ostream nowhere(&discard);
    ChunkBuffer buffer(options.bufferBytes);
    TrackSender sender(client_, trackId_, buffer, options.notes ? *options.notes : nowhere);
    Summary summary;
    sender.Start();
    try {
        Read(source, options, buffer, summary);
    } catch (...) {
        buffer.Close(std::chrono::steady_clock::now() + kDrainTimeAfterStop);
        sender.Join();
        throw;
    }
    buffer.Close(std::chrono::steady_clock::now() +
                 (Stopped(options) ? kDrainTimeAfterStop : kDrainTime));
    sender.Join();
    if (sender.Error())
        throw CliError(*sender.Error());
    Finish(buffer, summary);
    const ChunkBuffer::Dropped lost = buffer.TotalDropped();
    summary.lostChunks = lost.chunks;
    summary.lostBytes = lost.bytes;
    summary.stored = buffer.Confirmed();
    summary.reconnects = sender.Reconnects();
    summary.dropped = source.DroppedBytes();
    return summary;
}

void Recorder::Read(IChunkSource& source, const Options& options, ChunkBuffer& buffer,
                    Summary& summary) {
    std::optional<LiveStamper> live;
    const TimePoint end = options.start ? *options.start : TrackEnd();
    if (options.clock == Clock::kWall)
        live.emplace(trackId_, end, options.tolerance, &TimePoint::Now);
    summary.end = end.ToNanoseconds() == -1 ? TimePoint::Now() : end;
    SourceChunk piece;
    Protocol::Chunk chunk;
    while (!Stopped(options) && source.Next(summary.end, piece)) {
        LiveStamper::Stamp stamp{summary.end, piece.duration};
        if (live)
            stamp = live->Next(piece.duration);
        if (summary.chunks == 0)
            summary.first = stamp.at;
        *chunk.mutable_timepoint() = Converter::To(stamp.at);
        *chunk.mutable_duration() = Converter::To(stamp.duration);
        chunk.mutable_data()->swap(piece.payload);
        summary.bytes += chunk.data().size();
        summary.end = stamp.at + stamp.duration;
        ++summary.chunks;
        if (!buffer.Push(std::move(chunk)))
            return;  // the sender failed: its error is the one to report
    }
    if (summary.chunks == 0)
        summary.first = summary.end;
    summary.shortened = live ? live->Shortened() : 0;
}

void Recorder::Finish(ChunkBuffer& buffer, const Summary& summary) const {
    const uint64_t unsent = buffer.Unsent();
    if (unsent == 0)
        return;
    std::ostringstream text;
    text << "track " << trackId_ << ": the server at " << client_.Address()
         << " did not come back in time: " << unsent << " of " << summary.chunks
         << " chunks were not sent (up to " << summary.end << "); " << buffer.Confirmed()
         << " were stored";
    throw CliError(text.str());
}

}  // namespace loopstore::cli
