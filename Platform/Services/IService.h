#pragma once

namespace Moreld::Services {

// One service constructed by an IServiceHandlerFactory: the object the host
// keeps, and deletes through this interface, for as long as it serves the
// client. The objects a service holds belong to it.
class IService {
  public:
    virtual ~IService() = default;
};

}  // namespace Moreld::Services
