#include "Host/Hls/SegmentHandler.h"

#include <string>
#include <utility>

#include "Host/Hls/HlsRequest.h"
#include "Host/Hls/TrackReaderHandle.h"
#include "Host/Media/MediaError.h"
#include "Host/Media/SegmentRemuxer.h"

namespace loopstore::hls {

namespace {

std::string SegmentName(long trackId, int64_t timePoint) {
    return "segment " + std::to_string(timePoint) + " of track " + std::to_string(trackId);
}

// The chunk that starts exactly at `timePoint`; 404 when there is none.
Protocol::Chunk ReadChunk(MoreldStorageApi::ITrackReader& reader, long trackId, int64_t timePoint) {
    Protocol::TimePoint at;
    at.set_nanoseconds(timePoint);
    Protocol::Chunk chunk;
    bool found = false;
    reader.GetChunk(at, Protocol::KeyList(), chunk, found);
    if (!found || chunk.timepoint().nanoseconds() != timePoint)
        throw host::HttpError(404, "no " + SegmentName(trackId, timePoint));
    return chunk;
}

}  // namespace

host::HttpResponse SegmentHandler::operator()(const host::HttpRequest& request) const {
    const long trackId = HlsRequest::TrackId(request);
    const int64_t timePoint = HlsRequest::SegmentTimePoint(request.params.at(1));
    Protocol::Chunk chunk = ReadChunk(*OpenTrackReader(service_, trackId), trackId, timePoint);
    host::HttpResponse response;
    response.contentType = "video/mp2t";
    response.headers.emplace_back("Cache-Control", "public, max-age=31536000, immutable");
    if (media::SegmentRemuxer::IsMpegTs(chunk.data())) {
        response.body = std::move(*chunk.mutable_data());
        return response;
    }
    try {
        response.body =
            media::SegmentRemuxer::ToMpegTs(chunk.data(), SegmentName(trackId, timePoint));
    } catch (const media::MediaError& e) {
        throw host::HttpError(
            500, "cannot serve " + SegmentName(trackId, timePoint) + " as MPEG-TS: " + e.what());
    }
    return response;
}

}  // namespace loopstore::hls
