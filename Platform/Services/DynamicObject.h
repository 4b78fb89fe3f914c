#pragma once

namespace MoreldStorageApi {

// Base of the objects the host creates on a client's behalf (track writers
// and readers) and deletes when the client lets them go.
class DynamicObject {
  public:
    virtual ~DynamicObject() = default;

    // Called by the host just before it deletes the object, while the object
    // is still whole. Does nothing unless overridden.
    virtual void DestroyOnServer() {}
};

}  // namespace MoreldStorageApi
