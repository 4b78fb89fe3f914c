#pragma once

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Platform/Time/TimePoint.h"

namespace loopstore::cli {

class ExportStream;
class TrackWriteStream;

// The command line's side of the loopstore protocol: one channel to a server
// and a typed call per storage operation. Every call carries the bearer
// token when one was given. A failed call throws CliError with the server's
// text and what the command was doing; an unreachable server, or one that
// went away during the call, throws ServerUnavailable (worth trying again).
//
// Owns its channel and stubs. Calls may be made from any thread (gRPC stubs
// are thread-safe).
class StorageClient {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // `address` is "host:port". `tokenFile`, when not empty, holds the token
    // (surrounding blanks ignored); an unreadable file throws CliError.
    StorageClient(const std::string& address, const std::string& tokenFile);
    ~StorageClient();

    const std::string& Address() const { return address_; }

    // The new track's id. Throws when the server refuses.
    int64_t CreateTrack(int64_t id, uint64_t size);
    // The server's answer to a resize by `delta` bytes.
    Protocol::TrackParameters GrowTrack(int64_t id, int64_t delta);
    Protocol::TrackParameters DeleteTrack(int64_t id);
    void ClearTrack(int64_t id);
    std::vector<int64_t> ListTracks();
    // Throws CliError "unknown track <id>" unless the server has the track.
    void RequireTrack(int64_t id);
    Protocol::TrackInfos GetTrackInfos(const std::vector<int64_t>& ids);
    int64_t GetRemainingSpace();
    // -1 ns for an empty track.
    TimePoint GetEndOfTrack(int64_t id);
    TimePoint GetBeginningOfTrack(int64_t id);
    int64_t GetNumberOfChunks(int64_t id, TimePoint from, TimePoint to);
    // 0 ns removes the track's limit.
    void SetTrackMaxAge(int64_t id, TimePoint maxAge);

    // `label` and `expires` are optional (empty, none).
    int64_t Protect(int64_t id, TimePoint from, TimePoint duration, const std::string& label = "",
                    std::optional<TimePoint> expires = std::nullopt);
    void Unprotect(int64_t protectionId);
    Protocol::ProtectionInfos ListProtections();

    void SetTrackProperties(int64_t id, const std::map<std::string, std::string>& properties);
    std::map<std::string, std::string> GetTrackProperties(int64_t id);
    void RemoveTrackProperties(int64_t id, const std::vector<std::string>& keys);

    rpc::ActiveWorkers GetActiveWorkers();
    Protocol::WorkerInfos GetWorkerInfos(const std::vector<int64_t>& ids);

    // A write stream on the track (a writer lives as long as it).
    std::unique_ptr<TrackWriteStream> OpenWriter(int64_t id);
    // Records an export skipped because the server could not read them:
    // how many, and the starts of the first of them.
    struct Damaged {
        uint64_t count = 0;
        std::vector<TimePoint> at;
    };
    // Calls `onChunk` for every chunk overlapping [from, to), in order;
    // returns their count. Fills `damaged`, when given, with what the
    // server skipped.
    uint64_t Export(int64_t id, TimePoint from, TimePoint to,
                    const std::function<void(const Protocol::Chunk&)>& onChunk,
                    Damaged* damaged = nullptr);
    // The same call read chunk by chunk.
    std::unique_ptr<ExportStream> OpenExport(int64_t id, TimePoint from, TimePoint to);

    // Fills `context` with the token; used by the streams.
    void Prepare(grpc::ClientContext& context, bool withDeadline) const;
    // Throws the CliError for a failed call `what`.
    [[noreturn]] void Fail(const grpc::Status& status, const std::string& what) const;
    void Check(const grpc::Status& status, const std::string& what) const;

  private:
    const std::string address_;
    std::string token_;
    std::shared_ptr<grpc::Channel> channel_;
    std::unique_ptr<rpc::TrackStorage::Stub> storage_;
    std::unique_ptr<rpc::TrackWriter::Stub> writer_;
    std::unique_ptr<rpc::TrackReader::Stub> reader_;
    std::unique_ptr<rpc::TrackRetention::Stub> retention_;
};

}  // namespace loopstore::cli
