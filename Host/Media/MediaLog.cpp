#include "Host/Media/MediaLog.h"

extern "C" {
#include <libavutil/log.h>
}

namespace loopstore::media {

void MediaLog::Quiet() {
    av_log_set_level(AV_LOG_FATAL);
}

}  // namespace loopstore::media
