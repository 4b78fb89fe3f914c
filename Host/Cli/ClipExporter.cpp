#include "Host/Cli/ClipExporter.h"

#include "Host/Cli/CliError.h"
#include "Host/Cli/ExportProgress.h"
#include "Host/Cli/ExportStream.h"
#include "Host/Media/Demuxer.h"
#include "Host/Media/MediaError.h"
#include "Host/Media/MediaLog.h"
#include "Host/Media/Muxer.h"

namespace loopstore::cli {

namespace {

using Moreld::Time::TimePoint;

// How far before the start the export looks for a key frame, in turn.
constexpr TimePoint kReachBack[] = {TimePoint::FromSeconds(10), TimePoint::FromSeconds(60),
                                    TimePoint::FromSeconds(300)};
// Read past the end so that the last frame before it is whole.
constexpr TimePoint kTail = TimePoint::FromSeconds(2);

std::string Range(const ClipExporter::Request& r) {
    return "track " + std::to_string(r.track) + " between " + r.from.ToString() + " and " +
           r.to.ToString();
}

// The holes that lie within [start, to).
std::vector<ExportedBytes::Gap> GapsWithin(const std::vector<ExportedBytes::Gap>& gaps,
                                           TimePoint start, TimePoint to) {
    std::vector<ExportedBytes::Gap> within;
    for (const ExportedBytes::Gap& gap : gaps)
        if (gap.to > start && gap.from < to)
            within.push_back(gap);
    return within;
}

}  // namespace

ClipExporter::ClipExporter(StorageClient& client, ExportProgress& progress)
    : client_(client), progress_(progress) {}

ClipExporter::Result ClipExporter::Export(const Request& request) {
    media::MediaLog::Quiet();
    for (size_t i = 0;; ++i) {
        const TimePoint back = kReachBack[i];
        // Nothing lies further back than the track's beginning.
        const bool last =
            i + 1 == std::size(kReachBack) || request.from - back <= request.trackBeginning;
        if (auto result = Attempt(request, back, last))
            return *result;
    }
}

std::optional<ClipExporter::Result> ClipExporter::Attempt(const Request& request, TimePoint back,
                                                          bool lastChance) {
    auto stream = client_.OpenExport(request.track, request.from - back, request.to + kTail);
    ExportedBytes bytes([&stream](Protocol::Chunk& chunk) { return stream->Next(chunk); },
                        request.from, request.to);
    std::optional<media::Demuxer> demuxer;
    try {
        demuxer.emplace(
            [&bytes](uint8_t* buffer, size_t size) { return bytes.Read(buffer, size); });
    } catch (const media::MediaError&) {
        if (bytes.ChunksInRange() == 0)
            throw CliError("nothing recorded on " + Range(request));
        throw;
    }
    media::Muxer muxer(request.format.MuxerName(), request.path);
    media::ClipRemuxer remuxer(
        *demuxer, muxer, [&bytes](int64_t pos, int64_t ts) { return bytes.TimeAt(pos, ts); },
        [&bytes](int64_t after, int64_t upTo) { return bytes.Splice(after, upTo); });
    const auto outcome = remuxer.Run(request.from.ToNanoseconds(), request.to.ToNanoseconds(),
                                     lastChance, [this](int64_t t) { progress_.Update(t); });
    if (outcome == media::ClipRemuxer::Outcome::kNeedEarlier)
        return std::nullopt;
    if (bytes.ChunksInRange() == 0)
        throw CliError("nothing recorded on " + Range(request) + " (a gap in the recording)");
    if (outcome == media::ClipRemuxer::Outcome::kEmpty)
        throw CliError("nothing playable recorded on " + Range(request));
    muxer.Finish();
    Result result;
    result.clip = remuxer.summary();
    result.gaps =
        GapsWithin(bytes.Gaps(), TimePoint::FromNanoseconds(result.clip.start), request.to);
    result.chunks = bytes.ChunksInRange();
    result.bytes = bytes.BytesInRange();
    result.damaged = stream->Finish();
    return result;
}

}  // namespace loopstore::cli
