#include "Host/Cli/LiveStamper.h"

#include <algorithm>
#include <string>
#include <utility>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

namespace {
constexpr LiveStamper::TimePoint kShortest = LiveStamper::TimePoint::FromNanoseconds(1);
}

LiveStamper::LiveStamper(int64_t trackId, TimePoint trackEnd, TimePoint tolerance, Clock clock)
    : tolerance_(tolerance), clock_(std::move(clock)), end_(trackEnd) {
    const TimePoint now = clock_();
    if (end_ > now)
        throw CliError("track " + std::to_string(trackId) + " ends at " + end_.ToString() +
                       ", after now (" + now.ToString() +
                       "): a recording faster than real time left it there, and live time "
                       "stamps cannot go back. Record with --clock stream to continue from "
                       "that end, or wait until then");
}

LiveStamper::Stamp LiveStamper::Next(TimePoint streamDuration) {
    const TimePoint now = clock_();
    const TimePoint duration = std::max(streamDuration, kShortest);
    const TimePoint byWall = now - duration;
    Stamp stamp{end_, duration};
    if (!started_ || end_ < byWall - tolerance_) {
        stamp.at = std::max(byWall, end_);
        started_ = true;
        ++anchors_;
    }
    if (stamp.at + stamp.duration > now) {
        stamp.duration = std::max(now - stamp.at, kShortest);
        ++shortened_;
    }
    end_ = stamp.at + stamp.duration;
    return stamp;
}

}  // namespace loopstore::cli
