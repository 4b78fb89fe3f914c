#include "Host/Cli/Recorder.h"

#include "Host/Cli/TrackWriteStream.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;

Recorder::Recorder(StorageClient& client, int64_t trackId) : client_(client), trackId_(trackId) {}

Recorder::TimePoint Recorder::StartTime(std::optional<TimePoint> start) {
    if (start)
        return *start;
    const TimePoint end = client_.GetEndOfTrack(trackId_);
    const bool empty =
        end.ToNanoseconds() == -1 || client_.GetBeginningOfTrack(trackId_).ToNanoseconds() == -1;
    return empty ? TimePoint::Now() : end;
}

Recorder::Summary Recorder::Run(IChunkSource& source, std::optional<TimePoint> start) {
    client_.RequireTrack(trackId_);
    Summary summary;
    summary.first = summary.end = StartTime(start);
    std::unique_ptr<TrackWriteStream> stream = client_.OpenWriter(trackId_);
    SourceChunk piece;
    Protocol::Chunk chunk;
    while (source.Next(summary.end, piece)) {
        *chunk.mutable_timepoint() = Converter::To(summary.end);
        *chunk.mutable_duration() = Converter::To(piece.duration);
        chunk.mutable_data()->swap(piece.payload);
        stream->Write(chunk);
        summary.bytes += chunk.data().size();
        summary.end += piece.duration;
        ++summary.chunks;
    }
    summary.stored = static_cast<uint64_t>(stream->Finish().stored());
    summary.dropped = source.DroppedBytes();
    return summary;
}

}  // namespace loopstore::cli
