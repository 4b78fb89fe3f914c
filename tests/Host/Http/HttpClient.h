#pragma once

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <string>

namespace loopstore::test {

// A blocking HTTP/1.1 client on one connection to 127.0.0.1, for tests:
// sends raw text or simple requests and reads whole answers (chunked ones
// included).
class HttpClient {
  public:
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    explicit HttpClient(int port) : socket_(io_) {
        socket_.connect(
            {boost::asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)});
    }

    void SendRaw(const std::string& text) {
        boost::asio::write(socket_, boost::asio::buffer(text));
    }

    // Sends `method target` with `body`, keeping the connection open.
    void Send(const std::string& method, const std::string& target, const std::string& body = "",
              const std::string& extraHeaders = "") {
        SendRaw(method + " " + target + " HTTP/1.1\r\nHost: test\r\n" + extraHeaders +
                "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    }

    Response Read() {
        Response response;
        boost::beast::http::read(socket_, buffer_, response);
        return response;
    }

    Response Request(const std::string& method, const std::string& target,
                     const std::string& body = "", const std::string& extraHeaders = "") {
        Send(method, target, body, extraHeaders);
        return Read();
    }

    // True when the server has closed the connection (after any bytes left).
    bool ClosedByServer() {
        boost::beast::error_code error;
        char byte;
        while (!error)
            socket_.read_some(boost::asio::buffer(&byte, 1), error);
        return error == boost::asio::error::eof || error == boost::asio::error::connection_reset;
    }

  private:
    boost::asio::io_context io_;
    boost::asio::ip::tcp::socket socket_;
    boost::beast::flat_buffer buffer_;
};

}  // namespace loopstore::test
