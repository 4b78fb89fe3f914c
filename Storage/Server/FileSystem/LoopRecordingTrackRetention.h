#pragma once

#include "Platform/Services/ITrackRetention.h"
#include "Storage/Server/FileSystem/LoopRecordingCommonTrackStorage.h"

// The host's retention service: forwards to the track storage core with the
// host's messages converted. Holds nothing but a reference to the core
// (which outlives it); thread-safe as the core is.
class LoopRecordingTrackRetention : public MoreldStorageApi::ITrackRetention {
  public:
    explicit LoopRecordingTrackRetention(LoopRecordingCommonTrackStorage& core) : core_(core) {}

    void SetTrackMaxAge(const long& trackId, const Protocol::TimePoint& maxAge) override;

  private:
    LoopRecordingCommonTrackStorage& core_;
};
