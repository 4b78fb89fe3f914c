#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Host/Media/ClipRemuxer.h"
#include "Host/Media/ExportedBytes.h"
#include "Host/Media/MediaError.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::media {

class Muxer;

// Thrown when a range holds no chunk, or nothing that plays.
class NothingRecorded : public MediaError {
  public:
    using MediaError::MediaError;
};

// Makes a playable clip of a range of a track whose chunks hold an MPEG
// transport stream: the chunks are demuxed as one stream and remuxed
// (ClipRemuxer), starting at the key frame at or before the range's start.
// That key frame may lie chunks before the range: the cut reaches back 10 s
// first (a camera's key frames are a few seconds apart), then 60 s, then
// 300 s, and past that starts at the first key frame in the range. Where
// the chunks come from and where the clip goes is the caller's.
//
// Stateless; any thread (each cut uses what its caller hands it).
class ClipCutter {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // The chunks overlapping [from, to), handed out one by one in time
    // order by the function returned. Called once per reach.
    using OpenChunks =
        std::function<ExportedBytes::NextChunkFunction(TimePoint from, TimePoint to)>;
    // A new muxer for one reach; what an abandoned reach wrote (nothing but
    // an empty file) is overwritten by the next.
    using OpenMuxer = std::function<std::unique_ptr<Muxer>()>;

    struct Request {
        TimePoint from;
        TimePoint to;
        // Nothing lies further back.
        TimePoint trackBeginning;
        // The range in messages: "track 3 between ... and ...".
        std::string what;
    };
    struct Result {
        ClipRemuxer::Summary clip;
        // Holes of the recording inside the clip.
        std::vector<ExportedBytes::Gap> gaps;
        uint64_t chunks = 0;
        uint64_t bytes = 0;
    };

    ClipCutter() = delete;

    // Writes the clip and finishes the muxer. Throws NothingRecorded when the
    // range holds nothing playable, MediaError when the data is not media or
    // the output cannot be written.
    static Result Cut(const Request& request, const OpenChunks& openChunks,
                      const OpenMuxer& openMuxer, const ClipRemuxer::Progress& progress);

  private:
    // One reach `back` before the start; false when it must reach further.
    static bool Attempt(const Request& request, TimePoint back, bool lastChance,
                        const OpenChunks& openChunks, const OpenMuxer& openMuxer,
                        const ClipRemuxer::Progress& progress, Result& result);
};

}  // namespace loopstore::media
