#pragma once

namespace loopstore::media {

// libav's own log, which writes to stderr from inside the library. A
// command line that reports every failure itself keeps it quiet: a damaged
// packet at a gap is expected and handled, not news for the user.
class MediaLog {
  public:
    MediaLog() = delete;

    // Only fatal messages from now on, process-wide.
    static void Quiet();
};

}  // namespace loopstore::media
