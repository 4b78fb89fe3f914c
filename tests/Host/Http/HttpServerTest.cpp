#include "Host/Http/HttpServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "tests/Host/Http/HttpClient.h"

namespace loopstore::host {
namespace {

using test::HttpClient;

HttpServer::Options Local() {
    HttpServer::Options options;
    options.address = "127.0.0.1:0";
    return options;
}

// Answers with what it saw; "/stream" answers in pieces, one of them empty;
// "/broken" fails after its first piece; "/boom" throws.
HttpResponse Echo(const HttpRequest& request) {
    if (request.path == "/stream") {
        auto pieces = std::make_shared<std::vector<std::string>>(
            std::vector<std::string>{"one", "", "two", "three"});
        HttpResponse response = HttpResponse::Text("");
        response.stream = [pieces, next = std::size_t{0}](std::string& piece) mutable {
            piece = (*pieces)[next++];
            return next < pieces->size();
        };
        return response;
    }
    if (request.path == "/broken") {
        HttpResponse response = HttpResponse::Text("");
        response.stream = [calls = 0](std::string& piece) mutable -> bool {
            if (calls++ > 0)
                throw std::runtime_error("disk gone");
            piece = "start";
            return true;
        };
        return response;
    }
    if (request.path == "/boom")
        throw std::runtime_error("track 4: index lost");
    nlohmann::json seen = {{"method", request.method},
                           {"path", request.path},
                           {"query", request.query},
                           {"body", request.body}};
    const auto header = request.headers.find("x-camera");
    if (header != request.headers.end())
        seen["camera"] = header->second;
    return HttpResponse::Json(seen.dump());
}

TEST(HttpServerTest, KeepsAliveDecodesTargetsAndStreams) {
    HttpServer server(Echo, Local());
    server.Start();
    ASSERT_GT(server.Port(), 0);
    HttpClient client(server.Port());

    auto first = client.Request("POST", "/a%20b/c?x=1%2B1&y=a+b&y=last&flag", "payload",
                                "X-Camera: gate\r\n");
    ASSERT_EQ(first.result_int(), 200);
    const auto seen = nlohmann::json::parse(first.body());
    EXPECT_EQ(seen["method"], "POST");
    EXPECT_EQ(seen["path"], "/a b/c");
    EXPECT_EQ(seen["query"]["x"], "1+1");
    EXPECT_EQ(seen["query"]["y"], "last");
    EXPECT_EQ(seen["query"]["flag"], "");
    EXPECT_EQ(seen["body"], "payload");
    EXPECT_EQ(seen["camera"], "gate");

    // The same connection goes on after a chunked answer...
    auto streamed = client.Request("GET", "/stream");
    EXPECT_EQ(streamed.result_int(), 200);
    EXPECT_TRUE(streamed.chunked());
    EXPECT_EQ(streamed.body(), "onetwothree");
    EXPECT_EQ(client.Request("GET", "/bad%zzescape").result_int(), 400);
    auto failed = client.Request("GET", "/boom");
    EXPECT_EQ(failed.result_int(), 500);
    EXPECT_EQ(nlohmann::json::parse(failed.body())["error"], "track 4: index lost");

    // ...and ends when the client asks it to.
    auto last = client.Request("GET", "/x", "", "Connection: close\r\n");
    EXPECT_EQ(last.result_int(), 200);
    EXPECT_TRUE(client.ClosedByServer());

    // A stream failing half-way cuts the connection rather than ending the
    // body as if it were whole.
    HttpClient broken(server.Port());
    broken.Send("GET", "/broken");
    EXPECT_THROW(broken.Read(), boost::system::system_error);
}

TEST(HttpServerTest, RefusesMalformedAndOversizedRequests) {
    HttpServer::Options options = Local();
    options.maxHeaderBytes = 1024;
    options.maxBodyBytes = 100;
    HttpServer server(Echo, options);
    server.Start();

    HttpClient garbage(server.Port());
    garbage.SendRaw("NOT HTTP AT ALL\r\n\r\n");
    EXPECT_EQ(garbage.Read().result_int(), 400);
    EXPECT_TRUE(garbage.ClosedByServer());

    HttpClient bigHeader(server.Port());
    bigHeader.Send("GET", "/", "", "X-Padding: " + std::string(2000, 'p') + "\r\n");
    EXPECT_EQ(bigHeader.Read().result_int(), 431);
    EXPECT_TRUE(bigHeader.ClosedByServer());

    HttpClient bigBody(server.Port());
    bigBody.Send("POST", "/", std::string(101, 'b'));
    EXPECT_EQ(bigBody.Read().result_int(), 413);
    EXPECT_TRUE(bigBody.ClosedByServer());

    HttpClient fits(server.Port());
    EXPECT_EQ(fits.Request("POST", "/", std::string(100, 'b')).result_int(), 200);
}

TEST(HttpServerTest, SlowClientsHoldNoThreadAndTimeOut) {
    HttpServer::Options options = Local();
    options.threads = 2;
    options.readTimeout = std::chrono::milliseconds(300);
    HttpServer server(Echo, options);
    server.Start();

    // More half-sent requests than the server has threads.
    std::vector<std::unique_ptr<HttpClient>> stalled;
    for (int i = 0; i < 4; ++i) {
        stalled.push_back(std::make_unique<HttpClient>(server.Port()));
        stalled.back()->SendRaw("GET /slow HTTP/1.1\r\nHost: te");
    }
    HttpClient prompt(server.Port());
    EXPECT_EQ(prompt.Request("GET", "/prompt").result_int(), 200);

    // A request that never completes is dropped at the read timeout.
    for (auto& client : stalled)
        EXPECT_TRUE(client->ClosedByServer());
}

TEST(HttpServerTest, StopWaitsForRunningHandlerAndClosesConnections) {
    std::latch entered(1);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> stopReturned{false};
    std::atomic<bool> stopReturnedEarly{false};
    HttpServer server(
        [&](const HttpRequest& request) {
            if (request.path == "/hold") {
                entered.count_down();
                released.wait();
                stopReturnedEarly = stopReturned.load();
            }
            return HttpResponse::Text("done");
        },
        Local());
    server.Start();

    HttpClient idle(server.Port());
    EXPECT_EQ(idle.Request("GET", "/quick").result_int(), 200);
    HttpClient holding(server.Port());
    holding.Send("GET", "/hold");
    entered.wait();

    const int port = server.Port();
    std::thread stopper([&] {
        server.Stop();
        stopReturned = true;
    });
    // Idle connections are closed at once, while the handler still runs.
    EXPECT_TRUE(idle.ClosedByServer());
    release.set_value();
    stopper.join();

    EXPECT_FALSE(stopReturnedEarly);
    EXPECT_EQ(server.Port(), 0);
    EXPECT_TRUE(holding.ClosedByServer());
    EXPECT_THROW(HttpClient{port}, boost::system::system_error);

    // The same server starts again.
    server.Start();
    EXPECT_EQ(HttpClient(server.Port()).Request("GET", "/quick").result_int(), 200);
}

}  // namespace
}  // namespace loopstore::host
