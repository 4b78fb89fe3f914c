#pragma once

#include <string>
#include <string_view>

namespace loopstore::media {

// Turns one stored chunk into an MPEG-TS segment that a player can fetch on
// its own: a chunk that already is a transport stream is used as it is, any
// other container libavformat recognises is remuxed (never transcoded).
//
// Stateless; any thread.
class SegmentRemuxer {
  public:
    SegmentRemuxer() = delete;

    // True when `bytes` are whole 188-byte packets, each with its sync byte.
    static bool IsMpegTs(std::string_view bytes);

    // The audio and video streams of `bytes` as MPEG-TS, timestamps as they
    // were. `name` names the chunk in errors. Throws MediaError when the
    // container is not recognised or holds no audio or video.
    static std::string ToMpegTs(std::string_view bytes, const std::string& name);
};

}  // namespace loopstore::media
