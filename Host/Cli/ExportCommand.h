#pragma once

#include <CLI/CLI.hpp>

namespace loopstore::cli {

// "loopstore export --track ID --from T --to T --output FILE": writes the
// payloads of the chunks overlapping a range, in time order, one after the
// other (for MPEG-TS content, a playable file).
class ExportCommand {
  public:
    ExportCommand() = delete;

    static void Register(CLI::App& app);
};

}  // namespace loopstore::cli
