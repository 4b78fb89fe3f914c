#include "Host/Server/PeerServiceFactory.h"

#include <stdexcept>
#include <utility>

namespace loopstore::host {

PeerServiceFactory::PeerServiceFactory(Moreld::Services::IServiceHandlerFactory& factory,
                                       std::string serviceName, unsigned long cacheMemoryBytes)
    : factory_(factory),
      serviceName_(std::move(serviceName)),
      cacheMemoryBytes_(cacheMemoryBytes) {}

std::unique_ptr<MoreldStorageApi::Service> PeerServiceFactory::Construct(
    const grpc::ServerContext& context) const {
    std::unique_ptr<Moreld::Services::IService> service(
        factory_.Construct({serviceName_, context.peer(), cacheMemoryBytes_}));
    auto* storage = dynamic_cast<MoreldStorageApi::Service*>(service.get());
    if (storage == nullptr)
        throw std::runtime_error("Service " + serviceName_ + " is not a storage service");
    service.release();
    return std::unique_ptr<MoreldStorageApi::Service>(storage);
}

}  // namespace loopstore::host
