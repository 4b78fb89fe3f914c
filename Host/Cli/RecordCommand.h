#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore record --track ID": sends a file, standard input or a synthetic
// stream to a track, cut into chunks (MPEG-TS on packet boundaries, paced by
// its clock).
class RecordCommand {
  public:
    RecordCommand() = delete;

    static void Register(CLI::App& app);
};

}  // namespace loopstore::cli
