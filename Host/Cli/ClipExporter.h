#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Host/Cli/StorageClient.h"
#include "Host/Media/ClipCutter.h"
#include "Host/Media/ClipFormat.h"
#include "Host/Media/ClipRemuxer.h"

namespace loopstore::cli {

class ExportProgress;

// Makes a playable clip (MP4 or MPEG-TS) of a range of a track whose chunks
// hold an MPEG transport stream: the chunks are streamed from the server
// and cut by media::ClipCutter, starting at the key frame at or before the
// range's start.
//
// Refers to the client, which must outlive it. One export at a time.
class ClipExporter {
  public:
    using TimePoint = Moreld::Time::TimePoint;
    struct Request {
        int64_t track = 0;
        TimePoint from;
        TimePoint to;
        media::ClipFormat format;
        std::string path;  // where the muxer writes
        TimePoint trackBeginning;
    };
    struct Result : media::ClipCutter::Result {
        StorageClient::Damaged damaged;
    };

    ClipExporter(StorageClient& client, ExportProgress& progress);

    // Writes the clip to request.path. Throws CliError when the range holds
    // nothing playable, MediaError when the data is not media or the file
    // cannot be written; the file is then left for the caller to remove.
    Result Export(const Request& request);

  private:
    StorageClient& client_;
    ExportProgress& progress_;
};

}  // namespace loopstore::cli
