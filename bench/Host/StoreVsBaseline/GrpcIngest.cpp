#include "bench/Host/StoreVsBaseline/GrpcIngest.h"

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Host/Cli/DataLayout.h"
#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Rpc/WireConstants.h"
#include "Host/Server/LoopstoreServer.h"
#include "bench/Host/StoreVsBaseline/ChunkStream.h"
#include "bench/Host/StoreVsBaseline/ProcessProbe.h"
#include "bench/Host/StoreVsBaseline/TrackThreads.h"

namespace loopstore::bench {

namespace {

// A connection of its own: gRPC would otherwise share one between the
// streams of every channel to the same address.
std::shared_ptr<grpc::Channel> OpenChannel(int port) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetMaxSendMessageSize(rpc::kMaxMessageBytes);
    arguments.SetMaxReceiveMessageSize(rpc::kMaxMessageBytes);
    return grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(port),
                                     grpc::InsecureChannelCredentials(), arguments);
}

long CreateTrack(const std::shared_ptr<grpc::Channel>& channel, uint64_t bytes) {
    auto stub = rpc::TrackStorage::NewStub(channel);
    Protocol::TrackParameters request;
    request.set_id(0);
    request.set_size(static_cast<int64_t>(bytes));
    rpc::CreateTrackAnswer answer;
    grpc::ClientContext context;
    const grpc::Status status = stub->CreateTrack(&context, request, &answer);
    if (!status.ok() || answer.status() != 1)
        throw std::runtime_error("the server refused a track of " + std::to_string(bytes) +
                                 " bytes: " + status.error_message());
    return answer.answer().id();
}

// A client that is behind sends what it has waiting in one message.
constexpr uint64_t kBatchBytes = 256 << 10;

// Sends every chunk of `stream` to track `id` through one write stream.
void WriteTrack(const std::shared_ptr<grpc::Channel>& channel, long id, ChunkStream& stream) {
    auto stub = rpc::TrackWriter::NewStub(channel);
    grpc::ClientContext context;
    rpc::WriteSummary summary;
    std::unique_ptr<grpc::ClientWriter<rpc::WriteRequest>> writer = stub->Write(&context, &summary);
    rpc::WriteRequest request;
    request.mutable_open()->set_track_id(id);
    bool open = writer->Write(request);
    while (open && !stream.Done()) {
        rpc::ChunkBatch& batch = *request.mutable_batch();
        batch.clear_chunks();
        uint64_t bytes = 0;
        while (bytes < kBatchBytes && !stream.Done()) {
            Protocol::Chunk& chunk = *batch.add_chunks();
            chunk.Swap(&stream.Next());
            bytes += chunk.data().size();
        }
        open = writer->Write(request);
    }
    writer->WritesDone();
    const grpc::Status status = writer->Finish();
    if (!status.ok())
        throw std::runtime_error("track " + std::to_string(id) +
                                 ": write stream failed: " + status.error_message());
    if (static_cast<uint64_t>(summary.stored()) != stream.Count())
        throw std::runtime_error("track " + std::to_string(id) + ": " +
                                 std::to_string(summary.stored()) + " chunks stored of " +
                                 std::to_string(stream.Count()));
}

}  // namespace

GrpcIngest::GrpcIngest(std::string directory, Workload workload, unsigned long cacheMemoryBytes,
                       int streamWindowBytes)
    : directory_(std::move(directory)),
      workload_(std::move(workload)),
      cacheMemoryBytes_(cacheMemoryBytes),
      streamWindowBytes_(streamWindowBytes) {}

double GrpcIngest::Run() {
    const cli::DataLayout layout = cli::DataLayout::Under(directory_);
    double seconds = 0;
    try {
        layout.Prepare(Workload::kFilesPerTrack * workload_.tracks, workload_.FileSize());
        host::ServerOptions options;
        options.tracksDir = layout.tracks;
        options.dbDir = layout.db;
        options.poolDir = layout.pool;
        options.listenAddress = "127.0.0.1:0";
        options.cacheMemoryBytes = cacheMemoryBytes_;
        options.streamWindowBytes = streamWindowBytes_;
        host::LoopstoreServer server(options);
        server.Start();
        std::vector<long> trackIds;
        const auto channel = OpenChannel(server.Port());
        for (int t = 0; t < workload_.tracks; ++t)
            trackIds.push_back(
                CreateTrack(channel, Workload::kFilesPerTrack * workload_.FileSize()));
        ProcessProbe::ResetPeakRss();
        seconds = WriteAll(server.Port(), trackIds);
        peakRssBytes_ = ProcessProbe::PeakRssBytes();
    } catch (...) {
        std::filesystem::remove_all(directory_);
        throw;
    }
    std::filesystem::remove_all(directory_);
    return seconds > 0 ? static_cast<double>(workload_.BytesWritten()) / 1e6 / seconds : 0;
}

double GrpcIngest::WriteAll(int port, const std::vector<long>& trackIds) {
    const int tracks = static_cast<int>(trackIds.size());
    std::vector<std::unique_ptr<ChunkStream>> streams(tracks);
    std::vector<std::shared_ptr<grpc::Channel>> channels(tracks);
    return RunTrackThreads(
        tracks,
        [&](int t) {
            streams[t] = std::make_unique<ChunkStream>(workload_, t);
            channels[t] = OpenChannel(port);
            // Connected before the clock starts.
            channels[t]->WaitForConnected(std::chrono::system_clock::now() +
                                          std::chrono::seconds(10));
        },
        [&](int t) { WriteTrack(channels[t], trackIds[t], *streams[t]); });
}

}  // namespace loopstore::bench
