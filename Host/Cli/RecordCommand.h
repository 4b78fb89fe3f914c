#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore record --track ID": sends a file, standard input, a camera
// (--url) or a synthetic stream to a track, cut into chunks (MPEG-TS on
// packet boundaries or key frames), stamped by the wall clock for live input
// or by the stream's clock, through server restarts.
class RecordCommand {
  public:
    RecordCommand() = delete;

    static void Register(CLI::App& app);
};

}  // namespace loopstore::cli
