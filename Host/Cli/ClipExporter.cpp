#include "Host/Cli/ClipExporter.h"

#include <memory>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ExportProgress.h"
#include "Host/Cli/ExportStream.h"
#include "Host/Media/MediaLog.h"
#include "Host/Media/Muxer.h"

namespace loopstore::cli {

namespace {

std::string Range(const ClipExporter::Request& r) {
    return "track " + std::to_string(r.track) + " between " + r.from.ToString() + " and " +
           r.to.ToString();
}

}  // namespace

ClipExporter::ClipExporter(StorageClient& client, ExportProgress& progress)
    : client_(client), progress_(progress) {}

ClipExporter::Result ClipExporter::Export(const Request& request) {
    media::MediaLog::Quiet();
    // The export call of the last reach, finished once the clip is written.
    std::unique_ptr<ExportStream> stream;
    const auto openChunks = [&](TimePoint from, TimePoint to) {
        stream = client_.OpenExport(request.track, from, to);
        return [call = stream.get()](Protocol::Chunk& chunk) { return call->Next(chunk); };
    };
    const auto openMuxer = [&request] {
        return std::make_unique<media::Muxer>(request.format.MuxerName(), request.path);
    };
    Result result;
    try {
        static_cast<media::ClipCutter::Result&>(result) = media::ClipCutter::Cut(
            {request.from, request.to, request.trackBeginning, Range(request)}, openChunks,
            openMuxer, [this](int64_t t) { progress_.Update(t); });
    } catch (const media::NothingRecorded& e) {
        throw CliError(e.what());
    }
    result.damaged = stream->Finish();
    return result;
}

}  // namespace loopstore::cli
