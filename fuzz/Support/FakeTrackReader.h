#pragma once

#include "Platform/Services/ITrackReader.h"

namespace loopstore::fuzz {

// A track reader over a track that has one 1-byte chunk at every
// non-negative nanosecond: it answers at once from the asked time point. For
// the fuzzing of the read handlers. Thread-compatible.
class FakeTrackReader : public MoreldStorageApi::ITrackReader {
  public:
    void NextTimePoint(const Protocol::TimePoint& at, Protocol::TimePoint& next,
                       bool& found) override {
        found = at.nanoseconds() >= 0 && at.nanoseconds() < INT64_MAX;
        if (found)
            next.set_nanoseconds(at.nanoseconds() + 1);
    }
    void GetChunk(const Protocol::TimePoint& at, const Protocol::KeyList& keys,
                  Protocol::Chunk& chunk, bool& found) override {
        found = at.nanoseconds() >= 0;
        if (found)
            Fill(at.nanoseconds(), keys, chunk);
    }
    void GetTrackId(long& trackId) override { trackId = 1; }
    void PreviousTimePoint(const Protocol::TimePoint& at, Protocol::TimePoint& previous,
                           bool& found) override {
        found = at.nanoseconds() > 0;
        if (found)
            previous.set_nanoseconds(at.nanoseconds() - 1);
    }
    void GetPreviousChunk(const Protocol::TimePoint& at, const Protocol::KeyList& keys,
                          Protocol::Chunk& chunk, bool& found) override {
        found = at.nanoseconds() > 0;
        if (found)
            Fill(at.nanoseconds() - 1, keys, chunk);
    }
    void GetNextChunk(const Protocol::TimePoint& at, const Protocol::KeyList& keys,
                      Protocol::Chunk& chunk, bool& found) override {
        found = at.nanoseconds() >= 0 && at.nanoseconds() < INT64_MAX;
        if (found)
            Fill(at.nanoseconds() + 1, keys, chunk);
    }
    void Wait(const Protocol::TimePoint&, const int&, bool& result) override { result = true; }

  private:
    static void Fill(int64_t at, const Protocol::KeyList& keys, Protocol::Chunk& chunk) {
        chunk.mutable_timepoint()->set_nanoseconds(at);
        chunk.mutable_duration()->set_nanoseconds(1);
        chunk.set_data("x");
        for (const std::string& key : keys.keys()) {
            Protocol::Property* property = chunk.add_properties();
            property->set_key(key);
            property->set_value("v");
        }
    }
};

}  // namespace loopstore::fuzz
