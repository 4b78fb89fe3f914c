#pragma once

#include <stdexcept>
#include <string>

namespace loopstore::media {

// A failure of libavformat or of the media it was given. The text says what
// was being done and libav's reason ("writing the header of clip.mp4:
// Invalid argument").
class MediaError : public std::runtime_error {
  public:
    explicit MediaError(const std::string& message) : std::runtime_error(message) {}

    // libav's text for the negative error code `code`.
    static std::string Text(int code);
    // Throws MediaError "<what>: <reason>" when `code` is negative; returns it
    // otherwise.
    static int Check(int code, const std::string& what);
};

}  // namespace loopstore::media
