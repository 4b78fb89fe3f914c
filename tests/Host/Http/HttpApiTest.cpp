#include <gtest/gtest.h>

#include <mutex>
#include <nlohmann/json.hpp>

#include "Host/Http/ApiTime.h"
#include "Host/Http/HttpAccess.h"
#include "Host/Http/HttpRoutes.h"
#include "tests/Storage/Server/Factories/StorageFixture.h"

namespace loopstore::host {
namespace {

using nlohmann::json;

constexpr int64_t kMs = 1'000'000;

// Answers ranges from a fixed list, and remembers what it was asked.
class FakeTimeline : public MoreldStorageApi::ITrackTimeline {
  public:
    void GetRecordedRanges(const long& trackId, const Protocol::TimePoint& from,
                           const Protocol::TimePoint& to, const Protocol::TimePoint& maxGap,
                           Protocol::TimeRanges& ranges) override {
        std::lock_guard<std::mutex> lock(mutex);
        asked = json{trackId, from.nanoseconds(), to.nanoseconds(), maxGap.nanoseconds()};
        Protocol::TimeRange* range = ranges.add_ranges();
        *range->mutable_start() = ApiTime::Proto(1'000 * kMs + 1);  // rounds down to 1000
        *range->mutable_end() = ApiTime::Proto(2'000 * kMs + 1);    // rounds up to 2001
    }
    void ListChunks(const long&, const Protocol::TimePoint&, const Protocol::TimePoint&,
                    const long&, Protocol::ChunkSpans&) override {}
    void GetTrackStatistics(const Protocol::Ids&, Protocol::TrackStatisticsList&) override {}

    std::mutex mutex;
    json asked;
};

class HttpApiTest : public ::testing::Test {
  protected:
    HttpApiTest() : storage_(8) {
        storage_.CreateTrack(3, 2);
        Record(3);
        storage_.CreateTrack(5, 2);
        Protocol::PropertyList properties;
        Protocol::Property* name = properties.add_properties();
        name->set_key("name");
        name->set_value("gate \"north\"");
        storage_.Tracks().SetTrackProperties(3, properties);
        auto timeline = std::make_unique<FakeTimeline>();
        timeline_ = timeline.get();
        storage_.Service().SetTrackTimeline(std::move(timeline));
        router_ = std::make_unique<HttpRouter>(BuildHttpRouter(
            {storage_.Service(), [](const HttpRequest&) { return HttpResponse::Text("m"); },
             [] { return true; }}));
    }

    HttpResponse Call(const std::string& method, const std::string& path,
                      std::map<std::string, std::string> query = {}, std::string body = "") {
        HttpRequest request;
        request.method = method;
        request.path = path;
        request.query = std::move(query);
        request.body = std::move(body);
        return router_->Route(request);
    }

    // Chunks over [1 s, 5 s).
    void Record(long track) {
        std::unique_ptr<MoreldStorageApi::ITrackWriter> writer(storage_.Writers().Create(track));
        for (int64_t second = 1; second < 5; ++second) {
            Protocol::Chunk chunk;
            *chunk.mutable_timepoint() = ApiTime::Proto(second * 1000 * kMs);
            *chunk.mutable_duration() = ApiTime::Proto(1000 * kMs);
            chunk.set_data(std::string(1000, 'v'));
            writer->Append(chunk);
        }
    }

    static std::string ErrorOf(const HttpResponse& response) {
        return json::parse(response.body).value("error", "");
    }

    test::Storage storage_;
    FakeTimeline* timeline_ = nullptr;
    std::unique_ptr<HttpRouter> router_;
};

TEST_F(HttpApiTest, ListsTracksWithNullTimesWhenEmpty) {
    const HttpResponse response = Call("GET", "/api/tracks");
    ASSERT_EQ(response.status, 200) << response.body;
    const json answer = json::parse(response.body);
    ASSERT_EQ(answer["tracks"].size(), 2u);
    const json& recorded = answer["tracks"][0];
    EXPECT_EQ(recorded["id"], 3);
    EXPECT_EQ(recorded["track_size"], 2 * test::Storage::kFileSize);
    EXPECT_GE(recorded["current_size"], 4000);  // the chunks and their framing
    EXPECT_EQ(recorded["max_age_ms"], 0);
    EXPECT_EQ(recorded["beginning_ms"], 1000);
    EXPECT_EQ(recorded["end_ms"], 5000);
    EXPECT_EQ(recorded["oldest_ms"], 1000);
    EXPECT_EQ(recorded["properties"]["name"], "gate \"north\"");
    const json& empty = answer["tracks"][1];
    EXPECT_EQ(empty["id"], 5);
    EXPECT_TRUE(empty["beginning_ms"].is_null());
    EXPECT_TRUE(empty["end_ms"].is_null());
    EXPECT_TRUE(empty["oldest_ms"].is_null());
    EXPECT_TRUE(empty["properties"].empty());
    EXPECT_GT(answer["now_ms"].get<int64_t>(), 1'700'000'000'000);
}

TEST_F(HttpApiTest, TimelineParsesTimesAndRefusesBadInput) {
    HttpResponse response = Call(
        "GET", "/api/timeline", {{"from", "1000"}, {"to", "1970-01-01T00:00:05Z"}, {"gap", "250"}});
    ASSERT_EQ(response.status, 200) << response.body;
    json answer = json::parse(response.body);
    EXPECT_EQ(answer["from_ms"], 1000);
    EXPECT_EQ(answer["to_ms"], 5000);
    ASSERT_EQ(answer["tracks"].size(), 2u);
    EXPECT_EQ(answer["tracks"][1]["ranges"], json::parse("[[1000, 2001]]"));
    EXPECT_EQ(timeline_->asked, json({5, 1000 * kMs, 5000 * kMs, 250 * kMs}));

    response = Call("GET", "/api/tracks/3/timeline", {{"from", "0"}, {"to", "10"}});
    ASSERT_EQ(response.status, 200) << response.body;
    EXPECT_EQ(json::parse(response.body)["tracks"][0]["id"], 3);
    EXPECT_EQ(timeline_->asked[3], 1000 * kMs);  // default gap

    // Only the tracks asked for, or 404 naming the one that does not exist.
    answer = json::parse(Call("GET", "/api/timeline", {{"tracks", "5"}}).body);
    ASSERT_EQ(answer["tracks"].size(), 1u);
    EXPECT_EQ(answer["tracks"][0]["id"], 5);
    response = Call("GET", "/api/timeline", {{"tracks", "5,9"}});
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(ErrorOf(response), "no track 9");
    EXPECT_EQ(Call("GET", "/api/tracks/9/timeline").status, 404);

    struct Bad {
        std::map<std::string, std::string> query;
        std::string named;
    };
    for (const Bad& bad : std::vector<Bad>{{{{"from", "yesterday"}}, "from"},
                                           {{{"to", "2026-13-45T99:00:00Z"}}, "to"},
                                           {{{"from", "99999999999999999"}}, "from"},
                                           {{{"from", "10"}, {"to", "10"}}, "to"},
                                           {{{"gap", "-5"}}, "gap"},
                                           {{{"gap", "1s"}}, "gap"},
                                           {{{"tracks", "3,,5"}}, "track id"},
                                           {{{"tracks", "x"}}, "track id"}}) {
        response = Call("GET", "/api/timeline", bad.query);
        EXPECT_EQ(response.status, 400) << bad.named;
        EXPECT_NE(ErrorOf(response).find(bad.named), std::string::npos) << ErrorOf(response);
    }

    // A storage that cannot answer from its index says so.
    storage_.Service().SetTrackTimeline(nullptr);
    response = Call("GET", "/api/timeline");
    EXPECT_EQ(response.status, 503);
    EXPECT_NE(ErrorOf(response).find("index"), std::string::npos);
}

TEST_F(HttpApiTest, ProtectionsRoundTrip) {
    const int64_t future = ApiTime::NowMs() + 3'600'000;
    HttpResponse created = Call("POST", "/api/tracks/3/protections", {},
                                json{{"from_ms", 1000},
                                     {"to_ms", "1970-01-01T00:00:04Z"},
                                     {"label", "theft"},
                                     {"expires_ms", future}}
                                    .dump());
    ASSERT_EQ(created.status, 201) << created.body;
    const int64_t id = json::parse(created.body)["id"];

    json answer = json::parse(Call("GET", "/api/tracks/3/timeline", {{"from", "0"}}).body);
    ASSERT_EQ(answer["tracks"][0]["protections"].size(), 1u);
    EXPECT_EQ(answer["tracks"][0]["protections"][0], json({{"id", id},
                                                           {"start_ms", 1000},
                                                           {"end_ms", 4000},
                                                           {"label", "theft"},
                                                           {"expires_ms", future}}));
    // Not shown outside the window, nor on another track.
    answer = json::parse(Call("GET", "/api/timeline", {{"from", "4000"}}).body);
    EXPECT_TRUE(answer["tracks"][0]["protections"].empty());
    EXPECT_TRUE(answer["tracks"][1]["protections"].empty());

    EXPECT_EQ(Call("DELETE", "/api/protections/" + std::to_string(id)).status, 204);
    EXPECT_EQ(Call("DELETE", "/api/protections/" + std::to_string(id)).status, 404);
    EXPECT_EQ(Call("DELETE", "/api/protections/abc").status, 400);
    answer = json::parse(Call("GET", "/api/tracks/3/timeline", {{"from", "0"}}).body);
    EXPECT_TRUE(answer["tracks"][0]["protections"].empty());

    struct Bad {
        std::string body;
        std::string named;
    };
    for (const Bad& bad :
         std::vector<Bad>{{"not json", "JSON"},
                          {R"({"to_ms": 5})", "from_ms"},
                          {R"({"from_ms": 5, "to_ms": 5})", "to_ms"},
                          {R"({"from_ms": true, "to_ms": 5})", "from_ms"},
                          {R"({"from_ms": 1, "to_ms": 5, "label": 7})", "label"},
                          {R"({"from_ms": 1, "to_ms": 5, "expires_ms": 1000})", "expires_ms"}}) {
        const HttpResponse refused = Call("POST", "/api/tracks/3/protections", {}, bad.body);
        EXPECT_EQ(refused.status, 400) << bad.body;
        EXPECT_NE(ErrorOf(refused).find(bad.named), std::string::npos) << ErrorOf(refused);
    }
    EXPECT_EQ(Call("POST", "/api/tracks/8/protections", {}, R"({"from_ms":1,"to_ms":5})").status,
              404);
}

HttpRequest WithHeader(const std::string& name, const std::string& value) {
    HttpRequest request;
    request.method = "GET";
    request.path = "/api/tracks";
    request.headers[name] = value;
    return request;
}

TEST(HttpAccessTest, TokenByHeaderCookieOrOneTimeLink) {
    EXPECT_FALSE(HttpAccess("").Check(WithHeader("x", "y")));

    const HttpAccess access("s3cret");
    EXPECT_EQ(access.Check(WithHeader("x", "y"))->status, 401);
    EXPECT_FALSE(access.Check(WithHeader("authorization", "Bearer s3cret")));
    EXPECT_EQ(access.Check(WithHeader("authorization", "Bearer s3cre"))->status, 401);
    EXPECT_EQ(access.Check(WithHeader("authorization", "Basic s3cret"))->status, 401);
    EXPECT_FALSE(access.Check(WithHeader("cookie", "theme=dark; loopstore_token=s3cret")));
    EXPECT_EQ(access.Check(WithHeader("cookie", "loopstore_token=wrong; a=s3cret"))->status, 401);
    EXPECT_EQ(access.Check(WithHeader("cookie", "xloopstore_token=s3cret"))->status, 401);

    HttpRequest link;
    link.method = "GET";
    link.path = "/";
    link.query["token"] = "s3cret";
    const auto redirect = access.Check(link);
    ASSERT_TRUE(redirect);
    EXPECT_EQ(redirect->status, 303);
    std::map<std::string, std::string> headers(redirect->headers.begin(), redirect->headers.end());
    EXPECT_EQ(headers["Location"], "/");
    EXPECT_EQ(headers["Set-Cookie"], "loopstore_token=s3cret; Path=/; HttpOnly; SameSite=Strict");
    // A wrong token in the link sets nothing; a right one elsewhere is no
    // login.
    link.query["token"] = "guess";
    EXPECT_EQ(access.Check(link)->status, 401);
    link.query["token"] = "s3cret";
    link.path = "/api/tracks";
    EXPECT_EQ(access.Check(link)->status, 401);
}

}  // namespace
}  // namespace loopstore::host
