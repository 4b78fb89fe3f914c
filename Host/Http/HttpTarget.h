#pragma once

#include <string>
#include <string_view>

#include "Host/Http/HttpMessage.h"

namespace loopstore::host {

// Splits a request target ("/api/tracks/1%202?from=a&to=b") into the
// percent-decoded path and query parameters of an HttpRequest. In the query
// '+' stands for a space too. Stateless.
class HttpTarget {
  public:
    HttpTarget() = delete;

    // Fills `request.path` and `request.query`. Throws HttpError 400 naming
    // the target when it does not start with '/' or holds a bad escape.
    static void Decode(std::string_view target, HttpRequest& request);

    // `text` with its %XX escapes (and '+' when `plusIsSpace`) decoded;
    // throws HttpError 400 on a truncated or non-hexadecimal escape.
    static std::string Unescape(std::string_view text, bool plusIsSpace);
};

}  // namespace loopstore::host
