#pragma once

#include <optional>
#include <string>

#include "Host/Http/HttpMessage.h"

namespace loopstore::host {

// Who may use the HTTP server. Without a token everything is open (the
// server then listens on loopback only). With one, each request must carry
// it as "Authorization: Bearer <token>" or in the cookie "loopstore_token";
// "GET /?token=<token>" sets that cookie and redirects to "/", so that a
// browser page and its player, which cannot add headers, get in.
//
// Immutable after construction; safe from any thread.
class HttpAccess {
  public:
    explicit HttpAccess(std::string token) : token_(std::move(token)) {}

    // The answer that replaces the request's (401, or the redirect setting
    // the cookie), or nothing when the request may go on.
    std::optional<HttpResponse> Check(const HttpRequest& request) const;

    static constexpr const char* kCookie = "loopstore_token";

  private:
    bool CarriesToken(const HttpRequest& request) const;
    // The value of cookie `name` in the Cookie header, or nothing.
    static std::optional<std::string> Cookie(const HttpRequest& request, const std::string& name);
    bool Matches(const std::string& given) const;

    const std::string token_;
};

}  // namespace loopstore::host
