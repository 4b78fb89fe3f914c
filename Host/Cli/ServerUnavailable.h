#pragma once

#include <string>

#include "Host/Cli/CliError.h"

namespace loopstore::cli {

// A call failed because the server could not be reached or went away in the
// middle (restarting, stopping, network down): trying again later may work,
// unlike a refusal.
class ServerUnavailable : public CliError {
  public:
    explicit ServerUnavailable(const std::string& message) : CliError(message) {}
};

}  // namespace loopstore::cli
