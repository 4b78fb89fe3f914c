#include "Host/Web/PageRoutes.h"

#include <string>

#include "Host/Web/PageAssets.h"

namespace loopstore::web {

namespace {

host::HttpResponse Serve(const std::string& name, const host::HttpRequest& request) {
    const std::optional<PageAssets::Asset> asset = PageAssets::Find(name);
    if (!asset)
        throw host::HttpError(404, "no asset " + name);
    host::HttpResponse response;
    response.contentType = asset->contentType;
    response.headers = {{"Cache-Control", "no-cache"},
                        {"ETag", asset->etag},
                        {"X-Content-Type-Options", "nosniff"}};
    const auto match = request.headers.find("if-none-match");
    if (match != request.headers.end() && match->second == asset->etag) {
        response.status = 304;
        return response;
    }
    response.body.assign(asset->bytes);
    return response;
}

}  // namespace

void AddPageRoutes(host::HttpRouter& router) {
    router.Add("GET", "/", [](const host::HttpRequest& r) { return Serve("index.html", r); });
    router.Add("GET", "/assets/{}",
               [](const host::HttpRequest& r) { return Serve(r.params.at(0), r); });
}

}  // namespace loopstore::web
