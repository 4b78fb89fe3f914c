#include "Host/Media/MediaError.h"

extern "C" {
#include <libavutil/error.h>
}

namespace loopstore::media {

std::string MediaError::Text(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

int MediaError::Check(int code, const std::string& what) {
    if (code < 0)
        throw MediaError(what + ": " + Text(code));
    return code;
}

}  // namespace loopstore::media
