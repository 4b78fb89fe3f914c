#include "Host/Hls/ExportHandler.h"

#include <memory>
#include <string>

#include "Host/Hls/ChunkWalk.h"
#include "Host/Hls/DownloadFile.h"
#include "Host/Hls/HlsRequest.h"
#include "Host/Hls/TrackReaderHandle.h"
#include "Host/Media/ClipCutter.h"
#include "Host/Media/Muxer.h"

namespace loopstore::hls {

namespace {

using host::HttpError;
using Moreld::Time::TimePoint;

constexpr int64_t kNsPerMs = 1'000'000;

int64_t RequiredTime(const host::HttpRequest& request, const std::string& name) {
    constexpr int64_t kMissing = INT64_MIN;
    const int64_t ns = HlsRequest::Time(request, name, kMissing);
    if (ns == kMissing)
        throw HttpError(400, "give the range to export: from and to");
    return ns;
}

// The start of the track's first chunk; 404 when it holds none.
TimePoint Beginning(MoreldStorageApi::ITrackReader& reader, long trackId) {
    Protocol::TimePoint before;
    before.set_nanoseconds(-1);
    Protocol::TimePoint first;
    bool found = false;
    reader.NextTimePoint(before, first, found);
    if (!found)
        throw HttpError(404, "nothing recorded on track " + std::to_string(trackId));
    return TimePoint::FromNanoseconds(first.nanoseconds());
}

// Writes the clip of [from, to) to `file`.
void WriteClip(MoreldStorageApi::ITrackReader& reader, long trackId, TimePoint from, TimePoint to,
               const DownloadFile& file) {
    const media::ClipCutter::Request clip{from, to, Beginning(reader, trackId),
                                          "track " + std::to_string(trackId) + " between " +
                                              from.ToString() + " and " + to.ToString()};
    const auto openChunks = [&reader](TimePoint first, TimePoint end) {
        return WalkChunks(reader, first, end);
    };
    const auto openMuxer = [&file] {
        auto muxer = std::make_unique<media::Muxer>("mp4", file.Path());
        muxer->SetOption("movflags", "+faststart");
        return muxer;
    };
    try {
        media::ClipCutter::Cut(clip, openChunks, openMuxer, nullptr);
    } catch (const media::NothingRecorded& e) {
        throw HttpError(404, e.what());
    }
}

}  // namespace

host::HttpResponse ExportHandler::operator()(const host::HttpRequest& request) const {
    const long trackId = HlsRequest::TrackId(request);
    const int64_t from = RequiredTime(request, "from");
    const int64_t to = RequiredTime(request, "to");
    if (to <= from || to - from > kMaxRangeNs)
        throw HttpError(400, "export from " + std::to_string(from / kNsPerMs) + " to " +
                                 std::to_string(to / kNsPerMs) +
                                 " ms: the end must follow the start, by at most 24 hours");
    auto file = std::make_shared<DownloadFile>("loopstore-export-");
    WriteClip(*OpenTrackReader(service_, trackId), trackId, TimePoint::FromNanoseconds(from),
              TimePoint::FromNanoseconds(to), *file);
    file->Unlink();
    host::HttpResponse response;
    response.contentType = "video/mp4";
    response.headers.emplace_back("Content-Disposition",
                                  "attachment; filename=\"track-" + std::to_string(trackId) + "-" +
                                      std::to_string(from / kNsPerMs) + ".mp4\"");
    response.stream = [file](std::string& piece) { return file->Read(piece); };
    return response;
}

}  // namespace loopstore::hls
