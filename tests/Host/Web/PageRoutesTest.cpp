#include "Host/Web/PageRoutes.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

namespace loopstore::web {
namespace {

using host::HttpRequest;
using host::HttpResponse;
using host::HttpRouter;

HttpResponse Get(const HttpRouter& router, const std::string& path,
                 const std::string& ifNoneMatch = "") {
    HttpRequest request;
    request.method = "GET";
    request.path = path;
    if (!ifNoneMatch.empty())
        request.headers["if-none-match"] = ifNoneMatch;
    return router.Route(request);
}

std::string Header(const HttpResponse& r, const std::string& name) {
    for (const auto& [key, value] : r.headers)
        if (key == name)
            return value;
    return "";
}

// Every file the page refers to (script and style links, module imports)
// is built in and served with a type the browser accepts for it: a module
// served as text/plain, or a missing import, leaves the page blank.
TEST(PageRoutesTest, EveryReferencedFileIsServedWithItsType) {
    HttpRouter router;
    AddPageRoutes(router);
    const HttpResponse page = Get(router, "/");
    ASSERT_EQ(page.status, 200);
    EXPECT_EQ(page.contentType, "text/html; charset=utf-8");

    std::set<std::string> pending, seen;
    const std::regex link(R"re((?:src|href)="/assets/([^"]+)")re");
    for (std::sregex_iterator i(page.body.begin(), page.body.end(), link), end; i != end; ++i)
        pending.insert((*i)[1]);
    EXPECT_TRUE(pending.count("hls.min.js")) << page.body;
    const std::regex import(R"re(from '\./([^']+)')re");
    while (!pending.empty()) {
        const std::string name = *pending.begin();
        pending.erase(pending.begin());
        seen.insert(name);
        const HttpResponse asset = Get(router, "/assets/" + name);
        ASSERT_EQ(asset.status, 200) << name;
        EXPECT_FALSE(asset.body.empty()) << name;
        if (name.ends_with(".js")) {
            EXPECT_EQ(asset.contentType, "text/javascript; charset=utf-8") << name;
            for (std::sregex_iterator i(asset.body.begin(), asset.body.end(), import), end;
                 i != end; ++i)
                if (!seen.count((*i)[1]))
                    pending.insert((*i)[1]);
        }
        if (name.ends_with(".css")) {
            EXPECT_EQ(asset.contentType, "text/css; charset=utf-8");
        }
    }
    EXPECT_TRUE(seen.count("timeline.js"));
    // hls.js whole, not a stub: its build is a few hundred kilobytes.
    EXPECT_GT(Get(router, "/assets/hls.min.js").body.size(), 100'000u);
}

// A cached copy is revalidated: the same tag answers 304 without a body,
// another tag the file. Unknown names and paths out of the assets answer 404.
TEST(PageRoutesTest, RevalidatesAndRefusesUnknownNames) {
    HttpRouter router;
    AddPageRoutes(router);
    const HttpResponse first = Get(router, "/assets/page.js");
    const std::string tag = Header(first, "ETag");
    ASSERT_FALSE(tag.empty());
    EXPECT_EQ(Header(first, "Cache-Control"), "no-cache");
    const HttpResponse again = Get(router, "/assets/page.js", tag);
    EXPECT_EQ(again.status, 304);
    EXPECT_TRUE(again.body.empty());
    EXPECT_EQ(Get(router, "/assets/page.js", "\"other\"").status, 200);
    EXPECT_NE(Header(Get(router, "/assets/timeline.js"), "ETag"), tag);

    EXPECT_EQ(Get(router, "/assets/nothing.js").status, 404);
    EXPECT_EQ(Get(router, "/assets/../CMakeLists.txt").status, 404);
    EXPECT_EQ(Get(router, "/assets/").status, 404);
}

}  // namespace
}  // namespace loopstore::web
