#pragma once

#include <string>
#include <vector>

#include "Host/Http/HttpMessage.h"

namespace loopstore::host {

// Maps (method, path) to a handler. A pattern is a path whose segments are
// literal or "{}" (any one non-empty segment, captured into
// HttpRequest::params). The first route added that matches wins.
//
// Routes are added before serving; after that Route() may be called from
// many threads at once (it only reads).
class HttpRouter {
  public:
    // Precondition: `pattern` starts with '/'.
    void Add(const std::string& method, const std::string& pattern, HttpHandler handler);

    // Runs the matching handler. No route for the path answers 404; a path
    // routed for other methods only answers 405. HttpError and other
    // exceptions thrown by the handler become their error answers.
    HttpResponse Route(HttpRequest request) const;

    // The pattern of the route that answers (method, path), as added; empty
    // when none does. For labelling requests without their ids.
    std::string PatternOf(const std::string& method, const std::string& path) const;

  private:
    struct Entry {
        std::string method;
        std::string pattern;
        std::vector<std::string> segments;
        HttpHandler handler;
    };

    static bool Match(const Entry& entry, const std::vector<std::string>& path,
                      std::vector<std::string>& params);

    std::vector<Entry> routes_;
};

// The error answer: `status` with the JSON body {"error": message}.
HttpResponse ErrorResponse(int status, const std::string& message);

}  // namespace loopstore::host
