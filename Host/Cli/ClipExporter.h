#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Host/Cli/ExportedBytes.h"
#include "Host/Cli/StorageClient.h"
#include "Host/Media/ClipFormat.h"
#include "Host/Media/ClipRemuxer.h"

namespace loopstore::cli {

class ExportProgress;

// Makes a playable clip (MP4 or MPEG-TS) of a range of a track whose chunks
// hold an MPEG transport stream: the chunks are streamed from the server
// into libavformat's demuxer and remuxed, starting at the key frame at or
// before the range's start. That key frame may lie chunks before the range:
// the export reaches back 10 s first (a camera's key frames are a few
// seconds apart), then 60 s, then 300 s, and past that starts at the first
// key frame in the range.
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
    struct Result {
        media::ClipRemuxer::Summary clip;
        // Holes of the recording inside the clip.
        std::vector<ExportedBytes::Gap> gaps;
        uint64_t chunks = 0;
        uint64_t bytes = 0;
        StorageClient::Damaged damaged;
    };

    ClipExporter(StorageClient& client, ExportProgress& progress);

    // Writes the clip to request.path. Throws CliError when the range holds
    // nothing playable, MediaError when the data is not media or the file
    // cannot be written; the file is then left for the caller to remove.
    Result Export(const Request& request);

  private:
    // One pass reaching `back` before the start; nothing when it must reach
    // further.
    std::optional<Result> Attempt(const Request& request, TimePoint back, bool lastChance);

    StorageClient& client_;
    ExportProgress& progress_;
};

}  // namespace loopstore::cli
