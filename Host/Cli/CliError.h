#pragma once

#include <stdexcept>
#include <string>

namespace loopstore::cli {

// A failure the command line reports to its user as it is: the text is a
// complete sentence for stderr (what failed and on what), and the process
// exits non-zero. Thrown by the parsers, the client and every command.
class CliError : public std::runtime_error {
  public:
    explicit CliError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace loopstore::cli
