#pragma once

#include <optional>
#include <string>

namespace loopstore::media {

// The container of a clip: MP4 or MPEG-TS. A value type.
class ClipFormat {
  public:
    enum class Kind { kMp4, kMpegTs };

    // "mp4" or "ts"; nothing for any other name.
    static std::optional<ClipFormat> FromName(const std::string& name);
    // By the file name's extension (.mp4, .ts, .m2ts, any case); nothing for
    // another one.
    static std::optional<ClipFormat> FromPath(const std::string& path);

    Kind kind() const { return kind_; }
    // The name given to libavformat's muxer.
    const char* MuxerName() const;
    // The name users give ("mp4", "ts").
    const char* Name() const;

  private:
    explicit ClipFormat(Kind kind) : kind_(kind) {}

    Kind kind_;
};

}  // namespace loopstore::media
