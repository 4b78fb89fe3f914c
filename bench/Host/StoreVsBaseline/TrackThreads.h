#pragma once

#include <functional>

namespace loopstore::bench {

// Runs `work(t)` for every t in [0, count), each on a thread of its own, all
// released together once every `prepare(t)` has returned on its thread.
// Returns the seconds from that release until the last thread ended.
// Rethrows the first failure of a prepare or a work once all threads ended
// (a thread whose prepare failed skips its work).
double RunTrackThreads(int count, const std::function<void(int)>& prepare,
                       const std::function<void(int)>& work);

}  // namespace loopstore::bench
