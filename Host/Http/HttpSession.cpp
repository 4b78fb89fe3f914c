#include "Host/Http/HttpSession.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include <cctype>
#include <exception>
#include <utility>

#include "Host/Http/HttpRouter.h"
#include "Host/Http/HttpTarget.h"

namespace loopstore::host {

namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

std::string Lower(boost::beast::string_view text) {
    std::string out(text.data(), text.size());
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

HttpRequest ToHttpRequest(const http::request<http::string_body>& in) {
    HttpRequest out;
    out.method = std::string(in.method_string());
    HttpTarget::Decode(std::string_view(in.target().data(), in.target().size()), out);
    for (const auto& field : in)
        out.headers[Lower(field.name_string())] = std::string(field.value());
    out.body = in.body();
    return out;
}

template <class Message>
void SetHead(Message& message, const HttpResponse& response, bool keepAlive) {
    message.set(http::field::server, "loopstore");
    if (!response.contentType.empty())
        message.set(http::field::content_type, response.contentType);
    for (const auto& [name, value] : response.headers)
        message.insert(name, value);
    message.keep_alive(keepAlive);
}

}  // namespace

HttpSession::HttpSession(boost::asio::ip::tcp::socket socket, const HttpHandler& handler,
                         const HttpServer::Options& options)
    : stream_(std::move(socket)), handler_(handler), options_(options) {}

void HttpSession::Begin() {
    boost::asio::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->Read(); });
}

void HttpSession::Shutdown() {
    boost::asio::post(stream_.get_executor(), [self = shared_from_this()] { self->Close(); });
}

void HttpSession::Read() {
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(options_.maxHeaderBytes));
    parser_->body_limit(options_.maxBodyBytes);
    stream_.expires_after(options_.readTimeout);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code error, std::size_t) { self->OnRead(error); });
}

void HttpSession::OnRead(beast::error_code error) {
    if (!error) {
        Answer(parser_->get());
        return;
    }
    // Parse errors are the client's fault and get an answer; a closed,
    // timed-out or half-sent request just ends the connection.
    const bool malformed =
        error.category() == http::make_error_code(http::error::bad_target).category() &&
        error != http::error::end_of_stream && error != http::error::partial_message;
    if (malformed)
        Refuse(error);
    else
        Close();
}

void HttpSession::Refuse(beast::error_code error) {
    int status = 400;
    if (error == http::error::header_limit)
        status = 431;
    else if (error == http::error::body_limit)
        status = 413;
    WriteWhole(ErrorResponse(status, "cannot read the request: " + error.message()), 11, false);
}

void HttpSession::Answer(const Request& request) {
    stream_.expires_never();
    keepAlive_ = request.keep_alive();
    HttpResponse response = Handle(request);
    if (response.stream)
        WriteStreamed(std::move(response), request.version(), keepAlive_);
    else
        WriteWhole(std::move(response), request.version(), keepAlive_);
}

HttpResponse HttpSession::Handle(const Request& request) {
    try {
        return handler_(ToHttpRequest(request));
    } catch (const HttpError& e) {
        return ErrorResponse(e.Status(), e.what());
    } catch (const std::exception& e) {
        return ErrorResponse(500, e.what());
    }
}

void HttpSession::WriteWhole(HttpResponse response, unsigned version, bool keepAlive) {
    keepAlive_ = keepAlive;
    auto message = std::make_shared<http::response<http::string_body>>(
        static_cast<http::status>(response.status), version);
    SetHead(*message, response, keepAlive);
    message->body() = std::move(response.body);
    message->prepare_payload();
    pending_ = message;
    stream_.expires_after(options_.writeTimeout);
    http::async_write(stream_, *message,
                      [self = shared_from_this()](beast::error_code error, std::size_t) {
                          self->AfterWrite(error);
                      });
}

void HttpSession::WriteStreamed(HttpResponse response, unsigned version, bool keepAlive) {
    using Head = http::response<http::empty_body>;
    auto message = std::make_shared<Head>(static_cast<http::status>(response.status), version);
    SetHead(*message, response, keepAlive);
    message->chunked(true);
    auto serializer = std::make_shared<http::response_serializer<http::empty_body>>(*message);
    pending_ = std::make_shared<std::pair<std::shared_ptr<Head>, decltype(serializer)>>(message,
                                                                                        serializer);
    nextPiece_ = std::move(response.stream);
    stream_.expires_after(options_.writeTimeout);
    http::async_write_header(stream_, *serializer,
                             [self = shared_from_this()](beast::error_code error, std::size_t) {
                                 if (error)
                                     self->Close();
                                 else
                                     self->WriteNextPiece();
                             });
}

void HttpSession::WriteNextPiece() {
    bool more = false;
    do {
        piece_.clear();
        try {
            more = nextPiece_(piece_);
        } catch (const std::exception&) {
            // The head has gone out: cutting the connection is the only way
            // to tell the client that the body is incomplete.
            Close();
            return;
        }
    } while (more && piece_.empty());  // an empty chunk would end the body
    if (piece_.empty()) {
        WriteLastChunk();
        return;
    }
    stream_.expires_after(options_.writeTimeout);
    boost::asio::async_write(
        stream_, http::make_chunk(boost::asio::buffer(piece_)),
        [self = shared_from_this(), more](beast::error_code error, std::size_t) {
            if (error)
                self->Close();
            else if (more)
                self->WriteNextPiece();
            else
                self->WriteLastChunk();
        });
}

void HttpSession::WriteLastChunk() {
    stream_.expires_after(options_.writeTimeout);
    boost::asio::async_write(stream_, http::make_chunk_last(),
                             [self = shared_from_this()](beast::error_code error, std::size_t) {
                                 self->AfterWrite(error);
                             });
}

void HttpSession::AfterWrite(beast::error_code error) {
    pending_.reset();
    nextPiece_ = nullptr;
    if (error || !keepAlive_) {
        Close();
        return;
    }
    Read();
}

void HttpSession::Close() {
    beast::error_code ignored;
    stream_.socket().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
    stream_.socket().close(ignored);
}

}  // namespace loopstore::host
