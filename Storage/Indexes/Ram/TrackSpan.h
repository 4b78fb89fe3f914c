#pragma once

#include <optional>

#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/Ram/IFileSystemManager.h"

// Measures of a track between two instants: how many chunks, and how much
// recorded time, lie in [from, to). Both come from the running counters
// stamped in the chunks at append time, found through two or three of the
// index's searches whatever the span; they are only meaningful between
// chunks appended in the same run of the index.
//
// A short-lived view over a track index's search interface; each search
// takes the index's own locks, so the index may change between two of
// them, which only shifts a result by the chunks appended meanwhile.
class TrackSpan {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    explicit TrackSpan(IFileSystemManager& index) : index_(index) {}

    unsigned long CountChunks(const TimePoint& from, const TimePoint& to);
    TimePoint Duration(const TimePoint& from, const TimePoint& to);

  private:
    struct Ends {
        FileSystem::Chunk first;
        FileSystem::Chunk last;
        bool lastIncluded = false;  // whether `last` starts before `to`
    };
    // Nothing when no chunk lies in the span's reach.
    std::optional<Ends> Find(const TimePoint& from, const TimePoint& to);

    IFileSystemManager& index_;
};
