#include "Host/Http/HttpRouter.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace loopstore::host {
namespace {

HttpRequest Get(const std::string& path, const std::string& method = "GET") {
    HttpRequest request;
    request.method = method;
    request.path = path;
    return request;
}

TEST(HttpRouterTest, RoutesByMethodAndCapturesSegments) {
    HttpRouter router;
    router.Add("GET", "/api/tracks/{}/timeline", [](const HttpRequest& r) {
        return HttpResponse::Text("timeline " + r.params.at(0));
    });
    router.Add("GET", "/api/tracks/{}/{}", [](const HttpRequest& r) {
        return HttpResponse::Text(r.params.at(0) + "/" + r.params.at(1));
    });
    router.Add("POST", "/api/protections",
               [](const HttpRequest&) -> HttpResponse { throw HttpError(400, "bad range"); });
    router.Add("GET", "/boom", [](const HttpRequest&) -> HttpResponse {
        throw std::runtime_error("track 3: disk on fire");
    });

    EXPECT_EQ(router.Route(Get("/api/tracks/7/timeline")).body, "timeline 7");
    EXPECT_EQ(router.Route(Get("/api/tracks/7/timeline/")).body, "timeline 7");
    EXPECT_EQ(router.Route(Get("/api/tracks/7/live.m3u8")).body, "7/live.m3u8");

    const HttpResponse refused = router.Route(Get("/api/protections", "POST"));
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(nlohmann::json::parse(refused.body)["error"], "bad range");
    EXPECT_EQ(router.Route(Get("/api/protections")).status, 405);
    EXPECT_EQ(router.Route(Get("/api/nothing")).status, 404);
    EXPECT_EQ(router.Route(Get("/api/tracks//timeline")).status, 404);

    const HttpResponse failed = router.Route(Get("/boom"));
    EXPECT_EQ(failed.status, 500);
    EXPECT_EQ(nlohmann::json::parse(failed.body)["error"], "track 3: disk on fire");
}

}  // namespace
}  // namespace loopstore::host
