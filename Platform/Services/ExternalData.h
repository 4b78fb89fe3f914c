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
    // The memory, in bytes, that the chunks cached by every writer of the
    // process may take together; written chunks are dropped, oldest first,
    // beyond it. 0 leaves each track's cache its own default bound.
    unsigned long cacheMemoryBytes = 0;
};

}  // namespace Moreld::Services
