#include "Host/Http/HttpRouter.h"

#include <nlohmann/json.hpp>

#include <utility>

namespace loopstore::host {
namespace {

std::vector<std::string> Segments(const std::string& path) {
    std::vector<std::string> out;
    std::string::size_type begin = 0;
    while (begin < path.size()) {
        const auto slash = path.find('/', begin);
        const auto end = slash == std::string::npos ? path.size() : slash;
        if (end > begin)
            out.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return out;
}

}  // namespace

std::string HttpRequest::Query(const std::string& name, const std::string& fallback) const {
    const auto it = query.find(name);
    return it == query.end() ? fallback : it->second;
}

HttpResponse HttpResponse::Json(std::string body, int status) {
    HttpResponse response;
    response.status = status;
    response.body = std::move(body);
    return response;
}

HttpResponse HttpResponse::Text(std::string body, std::string contentType) {
    HttpResponse response;
    response.contentType = std::move(contentType);
    response.body = std::move(body);
    return response;
}

HttpResponse ErrorResponse(int status, const std::string& message) {
    return HttpResponse::Json(nlohmann::json{{"error", message}}.dump(), status);
}

void HttpRouter::Add(const std::string& method, const std::string& pattern, HttpHandler handler) {
    routes_.push_back(Entry{method, pattern, Segments(pattern), std::move(handler)});
}

bool HttpRouter::Match(const Entry& entry, const std::vector<std::string>& path,
                       std::vector<std::string>& params) {
    if (entry.segments.size() != path.size())
        return false;
    params.clear();
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (entry.segments[i] == "{}")
            params.push_back(path[i]);
        else if (entry.segments[i] != path[i])
            return false;
    }
    return true;
}

HttpResponse HttpRouter::Route(HttpRequest request) const {
    const auto path = Segments(request.path);
    bool pathKnown = false;
    for (const Entry& entry : routes_) {
        std::vector<std::string> params;
        if (!Match(entry, path, params))
            continue;
        pathKnown = true;
        if (entry.method != request.method)
            continue;
        request.params = std::move(params);
        try {
            return entry.handler(request);
        } catch (const HttpError& e) {
            return ErrorResponse(e.Status(), e.what());
        } catch (const std::exception& e) {
            return ErrorResponse(500, e.what());
        }
    }
    if (pathKnown)
        return ErrorResponse(405, "method " + request.method + " not allowed on " + request.path);
    return ErrorResponse(404, "no such resource: " + request.path);
}

std::string HttpRouter::PatternOf(const std::string& method, const std::string& path) const {
    const auto segments = Segments(path);
    std::vector<std::string> params;
    for (const Entry& entry : routes_) {
        if (entry.method == method && Match(entry, segments, params))
            return entry.pattern;
    }
    return "";
}

}  // namespace loopstore::host
