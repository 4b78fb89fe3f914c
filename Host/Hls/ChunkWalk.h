#pragma once

#include "Host/Media/ExportedBytes.h"
#include "Platform/Services/ITrackReader.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::hls {

// The chunks of a track that overlap [from, to), read one by one in time
// order through `reader`, which must outlive the function returned. At the
// end the function leaves its argument as it is and returns false, then
// and ever after.
media::ExportedBytes::NextChunkFunction WalkChunks(MoreldStorageApi::ITrackReader& reader,
                                                   Moreld::Time::TimePoint from,
                                                   Moreld::Time::TimePoint to);

}  // namespace loopstore::hls
