#pragma once

#include <grpcpp/server_context.h>

#include <memory>
#include <string>

#include "Platform/Services/DynamicObject.h"
#include "Platform/Services/IServiceHandlerFactory.h"
#include "Platform/Services/Service.h"

namespace loopstore::host {

// Deletes a writer or reader the way the storage API asks: DestroyOnServer
// first, while the object is whole.
struct DestroyOnServer {
    void operator()(MoreldStorageApi::DynamicObject* object) const {
        if (object == nullptr)
            return;
        object->DestroyOnServer();
        delete object;
    }
};

template <typename T>
using ClientObject = std::unique_ptr<T, DestroyOnServer>;

// Constructs one storage service per stream, described by the stream's peer
// address, so that the storage's worker monitoring shows who reads and
// writes. Refers to `factory`, which must outlive it and every service it
// returns. Every service asks for the same cache memory budget
// (`cacheMemoryBytes`, 0: the library's defaults). Thread-safe as far as the
// factory's Construct is.
class PeerServiceFactory {
  public:
    PeerServiceFactory(Moreld::Services::IServiceHandlerFactory& factory, std::string serviceName,
                       unsigned long cacheMemoryBytes = 0);

    // A new service owned by the caller. Throws std::runtime_error when the
    // factory's service is not a storage service.
    std::unique_ptr<MoreldStorageApi::Service> Construct(const grpc::ServerContext& context) const;

  private:
    Moreld::Services::IServiceHandlerFactory& factory_;
    const std::string serviceName_;
    const unsigned long cacheMemoryBytes_;
};

}  // namespace loopstore::host
