// Hands fuzzed protobuf requests to the gRPC handlers of the server, without
// a network: the track storage handlers are called directly (a fake storage
// behind them), and the write and read streams through the handlers' own
// argument checks (OpenedTrack, Accept, Answer, CheckRange). Byte 0 picks the
// call; the rest is its request, or for a stream its messages, each preceded
// by its 2-byte little-endian length. Every request must end in a status or
// a refusal the server maps to one; a crash or sanitizer report is a finding.

#include <grpcpp/server_context.h>

#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "Host/Server/CallGuard.h"
#include "Host/Server/ErrorStatus.h"
#include "Host/Server/TrackReaderRpc.h"
#include "Host/Server/TrackStorageRpc.h"
#include "Host/Server/TrackWriterRpc.h"
#include "fuzz/Support/FakeTrackReader.h"
#include "fuzz/Support/FakeTrackStorage.h"
#include "fuzz/Support/FakeTrackWriter.h"
#include "fuzz/Support/FuzzCheck.h"
#include "fuzz/Support/FuzzInput.h"

namespace {

using loopstore::host::TrackReaderRpc;
using loopstore::host::TrackStorageRpc;
using loopstore::host::TrackWriterRpc;
namespace rpc = loopstore::rpc;

template <typename Request, typename Answer>
grpc::Status Call(TrackStorageRpc& service,
                  grpc::Status (TrackStorageRpc::*method)(grpc::ServerContext*, const Request*,
                                                          Answer*),
                  std::string_view bytes) {
    Request request;
    if (!request.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
        return grpc::Status::OK;
    Answer answer;
    grpc::ServerContext context;
    return (service.*method)(&context, &request, &answer);
}

grpc::Status CallStorage(uint8_t call, std::string_view bytes) {
    static loopstore::fuzz::FakeTrackStorage storage;
    static const loopstore::host::CallGuard guard("");
    TrackStorageRpc service(storage, guard);
    using S = TrackStorageRpc;
    switch (call) {
        case 0:
            return Call(service, &S::CreateTrack, bytes);
        case 1:
            return Call(service, &S::GrowTrack, bytes);
        case 2:
            return Call(service, &S::DeleteTrack, bytes);
        case 3:
            return Call(service, &S::ClearTrack, bytes);
        case 4:
            return Call(service, &S::ListTracks, bytes);
        case 5:
            return Call(service, &S::GetTrackInfos, bytes);
        case 6:
            return Call(service, &S::GetTrackSize, bytes);
        case 7:
            return Call(service, &S::GetRemainingSpace, bytes);
        case 8:
            return Call(service, &S::GetBeginningOfTrack, bytes);
        case 9:
            return Call(service, &S::GetEndOfTrack, bytes);
        case 10:
            return Call(service, &S::GetNumberOfChunks, bytes);
        case 11:
            return Call(service, &S::GetAccumulatedDuration, bytes);
        case 12:
            return Call(service, &S::Protect, bytes);
        case 13:
            return Call(service, &S::Unprotect, bytes);
        case 14:
            return Call(service, &S::ListProtections, bytes);
        case 15:
            return Call(service, &S::SetTrackProperties, bytes);
        case 16:
            return Call(service, &S::GetTrackProperties, bytes);
        case 17:
            return Call(service, &S::RemoveTrackProperties, bytes);
        case 18:
            return Call(service, &S::GetActiveWorkers, bytes);
        case 19:
            return Call(service, &S::GetWorkerInfos, bytes);
        case 20:
            return Call(service, &S::GetOngoingCommands, bytes);
        default:
            return Call(service, &S::GetCommandInfo, bytes);
    }
}

// The next message of a stream; false at the end or when it does not parse.
template <typename Message>
bool Next(loopstore::fuzz::FuzzInput& in, Message& message) {
    const size_t size = in.Byte() | size_t{in.Byte()} << 8;
    const std::string_view bytes = in.Take(size);
    return !bytes.empty() && message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

void WriteStream(loopstore::fuzz::FuzzInput& in) {
    rpc::WriteRequest request;
    if (!Next(in, request))
        return;
    const long trackId = TrackWriterRpc::OpenedTrack(request);
    loopstore::fuzz::FakeTrackWriter writer;
    rpc::WriteSummary summary;
    while (Next(in, request))
        TrackWriterRpc::Accept(trackId, request, writer, summary);
}

void ReadSession(loopstore::fuzz::FuzzInput& in) {
    rpc::ReadRequest request;
    if (!Next(in, request))
        return;
    TrackReaderRpc::OpenedTrack(request);
    loopstore::fuzz::FakeTrackReader reader;
    do {
        TrackReaderRpc::Answer(reader, request);
    } while (Next(in, request));
}

void Export(loopstore::fuzz::FuzzInput& in) {
    rpc::ExportRequest request;
    if (Next(in, request))
        TrackReaderRpc::CheckRange(request);
}

// A stream ends at the first refusal, which the guard turns into a status.
grpc::Status Stream(uint8_t call, loopstore::fuzz::FuzzInput& in) {
    try {
        if (call == 22)
            WriteStream(in);
        else if (call == 23)
            ReadSession(in);
        else
            Export(in);
    } catch (const std::exception& e) {
        return loopstore::host::ErrorStatus::FromException(e);
    }
    return grpc::Status::OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    loopstore::fuzz::FuzzInput in(data, size);
    const uint8_t call = in.Byte() % 25;
    const grpc::Status status = call < 22 ? CallStorage(call, in.Rest()) : Stream(call, in);
    FUZZ_CHECK(status.error_code() != grpc::StatusCode::UNKNOWN);
    return 0;
}
