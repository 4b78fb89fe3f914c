#pragma once

#include <stdexcept>

#include "Platform/Plexa/Converter.h"
#include "Platform/Services/ITrackWriter.h"

namespace loopstore::fuzz {

// A track writer that keeps only the end of the last chunk, and refuses a
// chunk that starts before it as the storage does: the arithmetic a writer
// cannot avoid. For the fuzzing of the write handler. Thread-compatible.
class FakeTrackWriter : public MoreldStorageApi::ITrackWriter {
  public:
    void Append(const Protocol::Chunk& chunk) override {
        using Moreld::Plexa::Converter;
        const Moreld::Time::TimePoint start = Converter::From(chunk.timepoint());
        if (start < end_)
            throw std::runtime_error("Chunk time point is < end of track");
        end_ = start + Converter::From(chunk.duration());
        ++stored_;
    }
    void WaitUntilStored(long& stored) override { stored = stored_; }
    void GetTrackId(long& trackId) override { trackId = 1; }

  private:
    long stored_ = 0;
    Moreld::Time::TimePoint end_ = Moreld::Time::TimePoint::FromNanoseconds(INT64_MIN);
};

}  // namespace loopstore::fuzz
