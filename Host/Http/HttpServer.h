#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Host/Http/HttpMessage.h"
#include "Platform/Logging/Logger.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/ThreadAnnotations.h"

namespace loopstore::host {

// Serves one handler over HTTP/1.1 on one TCP address: keep-alive, bounded
// headers and bodies, read and write timeouts, chunked answers for
// HttpResponse::stream. Connections are served asynchronously by a small
// fixed set of threads, so a client that sends or reads slowly holds no
// thread; a handler runs on one of them until it returns.
//
// Owns its threads, sockets and the handler. Start and Stop are called from
// one thread at a time; the handler is called from the server's threads at
// once and must be thread-safe.
class HttpSession;

class HttpServer {
  public:
    struct Options {
        // "host:port"; port 0 picks a free port.
        std::string address = "127.0.0.1:0";
        int threads = 4;
        // Request line and header fields together.
        std::size_t maxHeaderBytes = 16 * 1024;
        std::size_t maxBodyBytes = 1024 * 1024;
        // How long a request may take to arrive, and a kept-alive
        // connection may stay idle.
        std::chrono::milliseconds readTimeout{30000};
        // How long one write of an answer may wait for the client.
        std::chrono::milliseconds writeTimeout{30000};
    };

    HttpServer(HttpHandler handler, Options options);
    ~HttpServer();

    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds the address and starts the threads. Throws std::runtime_error
    // naming the address and the system's reason; on failure nothing is left
    // open. Precondition: not running.
    void Start();

    // The port listened on (the one chosen for port 0); 0 when not running.
    int Port() const { return port_; }

    // Stops accepting, closes every connection and returns once no handler
    // runs any more. Does nothing when not running.
    void Stop();

  private:
    boost::asio::ip::tcp::endpoint Resolve() const;
    void Accept();
    // Serves `socket`, unless the server is stopping.
    void Open(boost::asio::ip::tcp::socket socket);
    // Closes the acceptor and every connection; their pending work ends.
    void CloseAll();

    const HttpHandler handler_;
    const Options options_;
    std::unique_ptr<boost::asio::io_context> io_;
    std::optional<boost::asio::ip::tcp::acceptor> acceptor_;
    std::vector<std::thread> threads_;
    int port_ = 0;
    Moreld::Tools::Mutex mutex_;
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::vector<std::weak_ptr<HttpSession>> sessions_ GUARDED_BY(mutex_);
    tav::mr::logging::Logger logger_;
};

}  // namespace loopstore::host
