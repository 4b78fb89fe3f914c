#include "Host/Media/ClipFormat.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace loopstore::media {

std::optional<ClipFormat> ClipFormat::FromName(const std::string& name) {
    if (name == "mp4")
        return ClipFormat(Kind::kMp4);
    if (name == "ts")
        return ClipFormat(Kind::kMpegTs);
    return std::nullopt;
}

std::optional<ClipFormat> ClipFormat::FromPath(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".mp4")
        return ClipFormat(Kind::kMp4);
    if (extension == ".ts" || extension == ".m2ts")
        return ClipFormat(Kind::kMpegTs);
    return std::nullopt;
}

const char* ClipFormat::MuxerName() const {
    return kind_ == Kind::kMp4 ? "mp4" : "mpegts";
}

const char* ClipFormat::Name() const {
    return kind_ == Kind::kMp4 ? "mp4" : "ts";
}

}  // namespace loopstore::media
