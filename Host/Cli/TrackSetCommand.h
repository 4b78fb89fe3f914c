#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore track set ID --max-age AGE": changes a track's policies on a
// running server. The maximum age (e.g. 72h; 0 or off: no limit) is stored
// with the track; content wholly older than it and not protected is given
// back at once, then at every start and at least once a minute.
class TrackSetCommand {
  public:
    TrackSetCommand() = delete;

    // Adds "set" to the "track" command. The callback throws CliError on
    // failure.
    static void Register(CLI::App& track);
};

}  // namespace loopstore::cli
