#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Server/LoopstoreServer.h"
#include "tests/Support/ProtocolBuilders.h"
#include "tests/Support/TempDir.h"
#include "tests/Support/TestTime.h"

namespace loopstore::test {

// A real server on 127.0.0.1 (port chosen by the system) over a fresh
// storage of preallocated pool files, and client stubs connected to it.
class ServerFixture {
  public:
    static constexpr unsigned long kFileSize = 64 * 1024;
    static constexpr int64_t kSecond = test::kSecond;

    // `token` non-empty: written to a token file the server requires.
    explicit ServerFixture(int poolFiles, const std::string& token = "");
    ~ServerFixture();

    void Start();
    void Stop();

    host::ServerOptions& Options() { return options_; }
    int Port() const { return server_ ? server_->Port() : 0; }
    int HttpPort() const { return server_ ? server_->HttpPort() : 0; }

    // A context carrying `token` as its bearer token (none when empty).
    std::unique_ptr<grpc::ClientContext> Context(const std::string& token = "") const;

    rpc::TrackStorage::Stub& Tracks() { return *tracks_; }
    rpc::TrackWriter::Stub& Writers() { return *writers_; }
    rpc::TrackReader::Stub& Readers() { return *readers_; }

    // Creates a track of `files` pool files; returns its id.
    long CreateTrack(long id, int files);
    // Writes `count` one-second chunks of `payload` bytes from `start` through
    // one write stream; returns the stream's status.
    grpc::Status Record(long track, int64_t start, int count, size_t payload = 20000);

  private:
    TempDir dir_;
    host::ServerOptions options_;
    std::unique_ptr<host::LoopstoreServer> server_;
    std::shared_ptr<grpc::Channel> channel_;
    std::unique_ptr<rpc::TrackStorage::Stub> tracks_;
    std::unique_ptr<rpc::TrackWriter::Stub> writers_;
    std::unique_ptr<rpc::TrackReader::Stub> readers_;
};

rpc::WriteRequest OpenWrite(long track);
rpc::WriteRequest ChunkAt(int64_t start, int64_t duration, size_t payload);

}  // namespace loopstore::test
