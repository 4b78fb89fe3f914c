#pragma once

#include <cstdint>

#include "Host/Http/HttpMessage.h"
#include "Platform/Services/ITrackStorage.h"

namespace loopstore::host {

// Creating and removing protections over HTTP.
//
// Holds a reference to the track storage service, which must outlive it.
// Stateless otherwise; its handlers may run on many threads at once.
class ProtectionApi {
  public:
    explicit ProtectionApi(MoreldStorageApi::ITrackStorage& tracks) : tracks_(tracks) {}

    // POST /api/tracks/{id}/protections with {"from_ms", "to_ms", "label"?,
    // "expires_ms"?}: 201 {"id": N}. Bad input 400, unknown track 404.
    HttpResponse Create(const HttpRequest& request) const;
    // DELETE /api/protections/{id}: 204; unknown protection 404.
    HttpResponse Remove(const HttpRequest& request) const;

  private:
    MoreldStorageApi::ITrackStorage& tracks_;
};

}  // namespace loopstore::host
