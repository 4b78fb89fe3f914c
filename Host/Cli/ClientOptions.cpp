#include "Host/Cli/ClientOptions.h"

namespace loopstore::cli {

void ClientOptions::AddTo(CLI::App& command) {
    command.add_option("--server", server, "Address of the loopstore server (host:port)")
        ->capture_default_str();
    command.add_option("--token-file", tokenFile,
                       "File holding the server's access token (sent as a bearer token)");
    command.add_flag("--json", json, "Print the answer as JSON, for scripts");
}

std::unique_ptr<StorageClient> ClientOptions::Connect() const {
    return std::make_unique<StorageClient>(server, tokenFile);
}

}  // namespace loopstore::cli
