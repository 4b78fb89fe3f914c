#include "Storage/Server/FileSystem/LoopRecordingTrackRetention.h"

#include "Platform/Plexa/Converter.h"

void LoopRecordingTrackRetention::SetTrackMaxAge(const long& trackId,
                                                 const Protocol::TimePoint& maxAge) {
    core_.SetTrackMaxAge(trackId, Moreld::Plexa::Converter::From(maxAge));
}
