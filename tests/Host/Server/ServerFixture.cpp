#include "tests/Host/Server/ServerFixture.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Host/Rpc/WireConstants.h"

namespace loopstore::test {

rpc::WriteRequest OpenWrite(long track) {
    rpc::WriteRequest request;
    request.mutable_open()->set_track_id(track);
    return request;
}

rpc::WriteRequest ChunkAt(int64_t start, int64_t duration, size_t payload) {
    rpc::WriteRequest request;
    Protocol::Chunk* chunk = request.mutable_chunk();
    *chunk->mutable_timepoint() = At(start);
    *chunk->mutable_duration() = At(duration);
    chunk->set_data(
        std::string(payload, static_cast<char>('a' + (start / ServerFixture::kSecond) % 26)));
    return request;
}

ServerFixture::ServerFixture(int poolFiles, const std::string& token) {
    options_.tracksDir = dir_ / "tracks";
    options_.dbDir = dir_ / "db";
    options_.poolDir = dir_ / "pool";
    options_.listenAddress = "127.0.0.1:0";
    std::filesystem::create_directories(options_.poolDir);
    for (int i = 1; i <= poolFiles; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "%08d", i);
        CreatePreallocatedFile(options_.poolDir + "/" + name, kFileSize);
    }
    if (!token.empty()) {
        options_.tokenFile = dir_ / "token";
        std::ofstream(options_.tokenFile) << token << "\n";
    }
    Start();
}

ServerFixture::~ServerFixture() {
    Stop();
}

void ServerFixture::Start() {
    server_ = std::make_unique<host::LoopstoreServer>(options_);
    server_->Start();
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(rpc::kMaxMessageBytes);
    arguments.SetMaxSendMessageSize(rpc::kMaxMessageBytes);
    channel_ = grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(server_->Port()),
                                         grpc::InsecureChannelCredentials(), arguments);
    tracks_ = rpc::TrackStorage::NewStub(channel_);
    writers_ = rpc::TrackWriter::NewStub(channel_);
    readers_ = rpc::TrackReader::NewStub(channel_);
}

void ServerFixture::Stop() {
    if (server_)
        server_->Stop();
    server_.reset();
}

std::unique_ptr<grpc::ClientContext> ServerFixture::Context(const std::string& token) const {
    auto context = std::make_unique<grpc::ClientContext>();
    if (!token.empty())
        context->AddMetadata("authorization", "Bearer " + token);
    return context;
}

long ServerFixture::CreateTrack(long id, int files) {
    Protocol::TrackParameters request;
    request.set_id(id);
    request.set_size(static_cast<int64_t>(files * kFileSize));
    rpc::CreateTrackAnswer answer;
    grpc::Status status = tracks_->CreateTrack(Context().get(), request, &answer);
    if (!status.ok() || answer.status() != 1)
        return -1;
    return static_cast<long>(answer.answer().id());
}

grpc::Status ServerFixture::Record(long track, int64_t start, int count, size_t payload) {
    auto context = Context();
    rpc::WriteSummary summary;
    auto stream = writers_->Write(context.get(), &summary);
    stream->Write(OpenWrite(track));
    for (int i = 0; i < count; ++i) {
        if (!stream->Write(ChunkAt(start + i * kSecond, kSecond, payload)))
            break;
    }
    stream->WritesDone();
    return stream->Finish();
}

}  // namespace loopstore::test
