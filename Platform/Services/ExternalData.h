#pragma once

#include <string>

namespace Moreld::Services {

// What the host tells a service factory about the client it constructs a
// service for. A plain value.
struct ExternalData {
    // The name under which the host registers the service.
    std::string serviceName;
    // A human-readable description of the client; services show it, for
    // instance, in the list of their workers.
    std::string clientDescription;
};

}  // namespace Moreld::Services
