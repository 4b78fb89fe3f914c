#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <memory>
#include <optional>
#include <string>

#include "Host/Http/HttpMessage.h"
#include "Host/Http/HttpServer.h"

namespace loopstore::host {

// One client connection of an HttpServer: reads requests one after the
// other, answers each through the handler, and ends on a read error, a
// timeout, a request that asks to close, or a malformed request (answered
// first with 400, 413 or 431).
//
// Keeps itself alive through the completion handlers it has pending (shared
// ownership); all its work runs on its own strand, so it needs no lock.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    HttpSession(boost::asio::ip::tcp::socket socket, const HttpHandler& handler,
                const HttpServer::Options& options);

    void Begin();
    // Closes the connection from any thread; a running handler finishes
    // first, and its answer is dropped.
    void Shutdown();

  private:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;

    void Read();
    void OnRead(boost::beast::error_code error);
    // Answers a request that could not be read, then closes.
    void Refuse(boost::beast::error_code error);
    void Answer(const Request& request);
    HttpResponse Handle(const Request& request);
    void WriteWhole(HttpResponse response, unsigned version, bool keepAlive);
    void WriteStreamed(HttpResponse response, unsigned version, bool keepAlive);
    void WriteNextPiece();
    void WriteLastChunk();
    void AfterWrite(boost::beast::error_code error);
    void Close();

    boost::beast::tcp_stream stream_;
    const HttpHandler& handler_;
    const HttpServer::Options& options_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    bool keepAlive_ = false;
    // The answer being written: a whole one, or the head and the current
    // piece of a streamed one.
    std::shared_ptr<void> pending_;
    std::function<bool(std::string&)> nextPiece_;
    std::string piece_;
};

}  // namespace loopstore::host
