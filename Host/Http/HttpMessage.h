#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace loopstore::host {

// One HTTP request as the handlers see it: decoded, whole, read-only.
struct HttpRequest {
    std::string method;  // "GET", "POST", ...
    std::string path;    // percent-decoded, without the query
    // Query parameters, percent-decoded; a repeated name keeps its last value.
    std::map<std::string, std::string> query;
    // Header fields by lower-case name.
    std::map<std::string, std::string> headers;
    std::string body;
    // The path segments matched by the "{}" of the route, in order.
    std::vector<std::string> params;

    // The query parameter, or `fallback` when absent.
    std::string Query(const std::string& name, const std::string& fallback = "") const;
};

// What a handler answers. `body` is sent as it is, unless `stream` is set:
// then the body is written piece by piece (chunked), `stream` being called
// until it returns false; an exception it throws cuts the connection.
struct HttpResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::function<bool(std::string& piece)> stream;

    static HttpResponse Json(std::string body, int status = 200);
    static HttpResponse Text(std::string body,
                             std::string contentType = "text/plain; charset=utf-8");
};

// Thrown by a handler to answer with `status` and a JSON body
// {"error": what()}; any other exception answers 500 the same way.
class HttpError : public std::runtime_error {
  public:
    HttpError(int status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    int Status() const { return status_; }

  private:
    int status_;
};

using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

}  // namespace loopstore::host
