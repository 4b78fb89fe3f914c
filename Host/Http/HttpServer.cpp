#include "Host/Http/HttpServer.h"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include <stdexcept>
#include <utility>

#include "Host/Http/HttpSession.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"

namespace loopstore::host {

namespace asio = boost::asio;
using tcp = boost::asio::ip::tcp;

HttpServer::HttpServer(HttpHandler handler, Options options)
    : handler_(std::move(handler)),
      options_(std::move(options)),
      logger_(tav::mr::logging::LoggingManager::GetLogger("HttpServer")) {}

HttpServer::~HttpServer() {
    Stop();
}

tcp::endpoint HttpServer::Resolve() const {
    const std::string& address = options_.address;
    const auto colon = address.rfind(':');
    if (colon == std::string::npos)
        throw std::runtime_error("HTTP address " + address + " has no port (host:port)");
    std::string host = address.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    boost::system::error_code error;
    tcp::resolver resolver(*io_);
    const auto results =
        resolver.resolve(host, address.substr(colon + 1),
                         tcp::resolver::passive | tcp::resolver::numeric_service, error);
    if (error || results.empty())
        throw std::runtime_error("Cannot resolve HTTP address " + address + ": " + error.message());
    return results.begin()->endpoint();
}

void HttpServer::Start() {
    if (io_)
        throw std::runtime_error("HTTP server already listening on port " + std::to_string(port_));
    io_ = std::make_unique<asio::io_context>(options_.threads);
    try {
        const tcp::endpoint endpoint = Resolve();
        acceptor_.emplace(asio::make_strand(*io_));
        acceptor_->open(endpoint.protocol());
        acceptor_->set_option(asio::socket_base::reuse_address(true));
        acceptor_->bind(endpoint);
        acceptor_->listen(asio::socket_base::max_listen_connections);
        port_ = acceptor_->local_endpoint().port();
    } catch (const boost::system::system_error& e) {
        acceptor_.reset();
        io_.reset();
        throw std::runtime_error("Cannot listen for HTTP on " + options_.address + ": " +
                                 e.code().message());
    } catch (...) {
        acceptor_.reset();
        io_.reset();
        throw;
    }
    Accept();
    for (int i = 0; i < options_.threads; ++i)
        threads_.emplace_back([this] { io_->run(); });
    MR_LOG(logger_, 30, "HTTP listening on " << options_.address << " (port " << port_ << ")");
}

void HttpServer::Accept() {
    acceptor_->async_accept(
        asio::make_strand(*io_), [this](boost::system::error_code error, tcp::socket socket) {
            if (error == asio::error::operation_aborted || !acceptor_->is_open())
                return;  // stopping
            if (!error)
                Open(std::move(socket));
            Accept();
        });
}

void HttpServer::Open(tcp::socket socket) {
    auto session = std::make_shared<HttpSession>(std::move(socket), handler_, options_);
    {
        Moreld::Tools::MutexLock lock(mutex_);
        if (stopping_)
            return;  // the socket closes with the session
        std::erase_if(sessions_, [](const auto& s) { return s.expired(); });
        sessions_.push_back(session);
    }
    session->Begin();
}

void HttpServer::CloseAll() {
    std::vector<std::weak_ptr<HttpSession>> sessions;
    {
        Moreld::Tools::MutexLock lock(mutex_);
        stopping_ = true;
        sessions.swap(sessions_);
    }
    asio::post(acceptor_->get_executor(), [this] {
        boost::system::error_code ignored;
        acceptor_->close(ignored);
    });
    for (const auto& weak : sessions) {
        if (const auto session = weak.lock())
            session->Shutdown();
    }
}

void HttpServer::Stop() {
    if (!io_)
        return;
    // With the acceptor and every socket closed, the pending operations
    // finish with errors and the threads run out of work once the handlers
    // still running have returned.
    CloseAll();
    for (std::thread& thread : threads_)
        thread.join();
    threads_.clear();
    acceptor_.reset();
    io_.reset();
    port_ = 0;
    {
        Moreld::Tools::MutexLock lock(mutex_);
        stopping_ = false;
    }
    MR_LOG(logger_, 30, "HTTP stopped");
}

}  // namespace loopstore::host
