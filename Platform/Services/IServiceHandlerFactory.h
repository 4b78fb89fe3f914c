#pragma once

#include "Platform/Services/ExternalData.h"
#include "Platform/Services/IService.h"

namespace Moreld::Services {

// The entry of a service library: the host creates one factory, then asks
// it for a service per client. The factory must outlive the services it
// constructed. Thread-safety is the implementation's to state.
class IServiceHandlerFactory {
  public:
    virtual ~IServiceHandlerFactory() = default;

    // Returns a new service for the client described by `data`; the caller
    // owns it. Implementations report failures by throwing.
    virtual IService* Construct(const ExternalData& data) = 0;
};

}  // namespace Moreld::Services
