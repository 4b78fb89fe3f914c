#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/Host/Http/HttpClient.h"
#include "tests/Host/Server/ServerFixture.h"

namespace loopstore::test {
namespace {

TEST(HttpServingTest, ServesTheStoreBehindTheTokenUntilStopped) {
    ServerFixture s(4, "s3cret");
    EXPECT_EQ(s.HttpPort(), 0);  // no HTTP unless asked
    s.Stop();
    s.Options().httpAddress = "127.0.0.1:0";
    s.Start();
    ASSERT_GT(s.HttpPort(), 0);
    ASSERT_EQ(s.CreateTrack(2, 1), -1);  // gRPC still wants its token too

    HttpClient client(s.HttpPort());
    EXPECT_EQ(client.Request("GET", "/api/tracks").result_int(), 401);
    EXPECT_EQ(client.Request("GET", "/metrics").result_int(), 401);
    auto tracks = client.Request("GET", "/api/tracks", "", "Authorization: Bearer s3cret\r\n");
    EXPECT_EQ(tracks.result_int(), 200);
    EXPECT_TRUE(nlohmann::json::parse(tracks.body())["tracks"].empty());

    // The link a browser opens once, then its cookie.
    auto login = client.Request("GET", "/?token=s3cret");
    EXPECT_EQ(login.result_int(), 303);
    const std::string cookie(login[boost::beast::http::field::set_cookie]);
    EXPECT_EQ(cookie.rfind("loopstore_token=s3cret;", 0), 0u) << cookie;
    auto health = client.Request("GET", "/healthz", "", "Cookie: loopstore_token=s3cret\r\n");
    EXPECT_EQ(health.result_int(), 200);
    EXPECT_EQ(health.body(), "ok\n");

    const int port = s.HttpPort();
    s.Stop();
    EXPECT_TRUE(client.ClosedByServer());
    EXPECT_THROW(HttpClient{port}, boost::system::system_error);
}

TEST(HttpServingTest, HttpAddressFollowsTheListenRulesAndFailsCleanly) {
    ServerFixture first(2);
    first.Stop();
    first.Options().httpAddress = "127.0.0.1:0";
    first.Start();

    ServerFixture second(2);
    second.Stop();
    // Beyond loopback needs --allow-remote and a token, as gRPC does.
    second.Options().httpAddress = "0.0.0.0:0";
    try {
        second.Start();
        ADD_FAILURE() << "listened beyond loopback";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("0.0.0.0:0"), std::string::npos) << e.what();
    }
    // A port taken by another server: the start fails naming it, and leaves
    // the storage closed, so that it starts again.
    second.Options().httpAddress = "127.0.0.1:" + std::to_string(first.HttpPort());
    try {
        second.Start();
        ADD_FAILURE() << "two servers on one HTTP port";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find(second.Options().httpAddress), std::string::npos)
            << e.what();
    }
    second.Options().httpAddress = "127.0.0.1:0";
    second.Start();
    EXPECT_GT(second.HttpPort(), 0);
    EXPECT_NE(second.HttpPort(), first.HttpPort());
}

}  // namespace
}  // namespace loopstore::test
