#include "Host/Server/LoopstoreServer.h"

#include <grpc/grpc.h>
#include <grpcpp/ext/proto_server_reflection_plugin.h>
#include <grpcpp/health_check_service_interface.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server_builder.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "Host/Rpc/WireConstants.h"
#include "Host/Server/CallMetrics.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/MutexLock.h"

namespace loopstore::host {

namespace {

// Unary calls in progress get this long to finish at a stop; streams still
// open after it are cancelled.
constexpr auto kShutdownGrace = std::chrono::milliseconds(500);

std::string Host(const std::string& address) {
    if (!address.empty() && address.front() == '[') {
        const auto close = address.find(']');
        return address.substr(1, close == std::string::npos ? std::string::npos : close - 1);
    }
    const auto colon = address.rfind(':');
    return colon == std::string::npos ? address : address.substr(0, colon);
}

bool IsLoopback(const std::string& address) {
    if (address.rfind("unix:", 0) == 0)
        return true;  // a local socket never leaves the machine
    const std::string host = Host(address);
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The token, or empty when no token file is configured.
std::string ReadToken(const std::string& tokenFile) {
    if (tokenFile.empty())
        return "";
    std::ifstream in(tokenFile);
    if (!in)
        throw std::runtime_error("Cannot read token file " + tokenFile);
    std::ostringstream content;
    content << in.rdbuf();
    std::string token = Trim(content.str());
    if (token.empty())
        throw std::runtime_error("Token file " + tokenFile + " is empty");
    return token;
}

std::string PortOf(const std::string& address) {
    const auto colon = address.rfind(':');
    return colon == std::string::npos ? "" : address.substr(colon + 1);
}

// gRPC only says that it could not bind: bind the address once more with a
// plain socket to learn the system's reason (address in use, not allowed).
std::string WhyCannotBind(const std::string& address) {
    if (address.rfind("unix:", 0) == 0)
        return "the socket cannot be created";
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const std::string host = Host(address);
    const int resolved =
        getaddrinfo(host.empty() ? nullptr : host.c_str(), PortOf(address).c_str(), &hints, &found);
    if (resolved != 0)
        return gai_strerror(resolved);
    std::string reason = "the address cannot be bound";
    for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
        const int fd = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
        if (fd < 0)
            continue;
        const bool bound = bind(fd, a->ai_addr, a->ai_addrlen) == 0;
        const int error = errno;
        close(fd);
        if (!bound) {
            reason = std::strerror(error);
            break;
        }
    }
    freeaddrinfo(found);
    return reason;
}

void CheckListenPolicy(const std::string& address, const ServerOptions& options,
                       const std::string& token) {
    if (IsLoopback(address))
        return;
    if (!options.allowRemote) {
        throw std::runtime_error("Refusing to listen on " + address +
                                 ": listening beyond loopback must be allowed explicitly");
    }
    if (token.empty())
        throw std::runtime_error("Refusing to listen on " + address + " without a token file");
}

}  // namespace

LoopstoreServer::LoopstoreServer(ServerOptions options)
    : options_(std::move(options)),
      logger_(tav::mr::logging::LoggingManager::GetLogger("LoopstoreServer")) {}

LoopstoreServer::~LoopstoreServer() {
    Stop();
}

void LoopstoreServer::Start() {
    Moreld::Tools::MutexLock lock(mutex_);
    if (server_)
        throw std::runtime_error("Server already listening on port " + std::to_string(port_));
    try {
        const std::string token = ReadToken(options_.tokenFile);
        CheckListenPolicy(options_.listenAddress, options_, token);
        if (!options_.httpAddress.empty())
            CheckListenPolicy(options_.httpAddress, options_, token);
        OpenStorage();
        Listen(token);
        ListenHttp(token);
    } catch (const std::exception& e) {
        MR_LOG(logger_, 50, "Cannot start the server: " << e.what());
        Release();
        throw;
    }
    MR_LOG(logger_, 30,
           "Listening on " << options_.listenAddress << " (port " << port_ << "), tracks in "
                           << options_.tracksDir);
}

void LoopstoreServer::OpenStorage() {
    for (const std::string& dir : {options_.tracksDir, options_.dbDir, options_.poolDir}) {
        if (dir.empty())
            throw std::runtime_error("The tracks, database and pool directories must all be set");
        std::filesystem::create_directories(dir);
    }
    factory_ =
        std::make_unique<LoopRecordingFileFactory>(LoopRecordingFileFactory::FactoryParameters{
            options_.tracksDir, options_.dbDir, options_.poolDir});
    storage_.reset(
        factory_->Construct({"loopstore", "loopstore server", options_.cacheMemoryBytes}));
}

// Each client stream's chunks wait in the server up to its window: a fixed
// window keeps that bounded, where window growth let 16 loopback streams
// hold hundreds of megabytes.
void LoopstoreServer::BoundReceiveBuffering(grpc::ServerBuilder& builder) const {
    if (options_.streamWindowBytes <= 0)
        return;
    builder.AddChannelArgument(GRPC_ARG_HTTP2_BDP_PROBE, 0);
    builder.AddChannelArgument(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, options_.streamWindowBytes);
}

void LoopstoreServer::Listen(const std::string& token) {
    metrics_ = std::make_unique<ServerMetrics>();
    guard_ = std::make_unique<CallGuard>(token);
    peers_ =
        std::make_unique<PeerServiceFactory>(*factory_, "loopstore", options_.cacheMemoryBytes);
    trackStorageRpc_ = std::make_unique<TrackStorageRpc>(*storage_->trackStorage, *guard_);
    trackWriterRpc_ = std::make_unique<TrackWriterRpc>(*peers_, *guard_);
    trackReaderRpc_ = std::make_unique<TrackReaderRpc>(*peers_, *guard_);
    trackRetentionRpc_ = std::make_unique<TrackRetentionRpc>(*storage_->trackRetention, *guard_);

    grpc::EnableDefaultHealthCheckService(true);
    grpc::reflection::InitProtoReflectionServerBuilderPlugin();
    grpc::ServerBuilder builder;
    // gRPC shares a port by default: a second server on it would take half
    // of the calls meant for the first.
    builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, 0);
    builder.AddListeningPort(options_.listenAddress, grpc::InsecureServerCredentials(), &port_);
    builder.SetMaxReceiveMessageSize(rpc::kMaxMessageBytes);
    builder.SetMaxSendMessageSize(rpc::kMaxMessageBytes);
    BoundReceiveBuffering(builder);
    std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> timing;
    timing.push_back(std::make_unique<CallMetrics>(*metrics_));
    builder.experimental().SetInterceptorCreators(std::move(timing));
    builder.RegisterService(trackStorageRpc_.get());
    builder.RegisterService(trackWriterRpc_.get());
    builder.RegisterService(trackReaderRpc_.get());
    builder.RegisterService(trackRetentionRpc_.get());
    server_ = builder.BuildAndStart();
    if (!server_ || port_ == 0) {
        server_.reset();
        port_ = 0;
        throw std::runtime_error("Cannot listen on " + options_.listenAddress + " (port " +
                                 PortOf(options_.listenAddress) +
                                 "): " + WhyCannotBind(options_.listenAddress));
    }
    server_->GetHealthCheckService()->SetServingStatus(true);
}

void LoopstoreServer::ListenHttp(const std::string& token) {
    if (options_.httpAddress.empty())
        return;
    metricsPage_ = std::make_unique<MetricsPage>(*storage_, *metrics_, [this] {
        const CacheBudget::Usage usage = factory_->GetCacheUsage();
        return MetricsPage::SharedCacheUse{usage.bytesInUse, usage.limit};
    });
    HttpServer::Options http;
    http.address = options_.httpAddress;
    http_ = std::make_unique<HttpFrontend>(
        *storage_, *metrics_, token, http,
        [page = metricsPage_.get()](const HttpRequest& request) { return page->Answer(request); });
    http_->Start();
}

void LoopstoreServer::Stop() {
    Moreld::Tools::MutexLock lock(mutex_);
    if (!server_)
        return;
    MR_LOG(logger_, 30, "Stopping: no new calls, open streams end");
    server_->GetHealthCheckService()->SetServingStatus(false);
    if (http_) {
        http_->MarkClosing();
        http_->Stop();
    }
    // Returns once every handler has returned, so every writer is destroyed
    // (drained, last file saved) before the storage goes.
    server_->Shutdown(std::chrono::system_clock::now() + kShutdownGrace);
    server_->Wait();
    LogCacheUsage();
    Release();
    MR_LOG(logger_, 30, "Stopped; storage closed");
}

void LoopstoreServer::LogCacheUsage() {
    const CacheBudget::Usage usage = factory_->GetCacheUsage();
    MR_LOG(logger_, 30,
           "Chunk cache: " << usage.bytesInUse << "B in use, at most " << usage.peakBytesInUse
                           << "B, limit "
                           << (usage.limit == 0 ? std::string("none (per-track bounds)")
                                                : std::to_string(usage.limit) + "B")
                           << ", " << usage.chunksDropped
                           << " written chunks dropped to stay within it");
}

void LoopstoreServer::Release() {
    http_.reset();
    metricsPage_.reset();
    server_.reset();
    port_ = 0;
    trackRetentionRpc_.reset();
    trackReaderRpc_.reset();
    trackWriterRpc_.reset();
    trackStorageRpc_.reset();
    peers_.reset();
    guard_.reset();
    metrics_.reset();
    storage_.reset();
    factory_.reset();
}

}  // namespace loopstore::host
