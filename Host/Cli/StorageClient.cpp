#include "Host/Cli/StorageClient.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>

#include "Host/Cli/CliError.h"
#include "Host/Cli/ExportStream.h"
#include "Host/Cli/ServerUnavailable.h"
#include "Host/Cli/TrackWriteStream.h"
#include "Host/Rpc/WireConstants.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;

namespace {

// Resizes move files on the server's thread; a minute covers large tracks.
constexpr auto kCallTimeout = std::chrono::seconds(60);

std::string ReadToken(const std::string& tokenFile) {
    if (tokenFile.empty())
        return {};
    std::ifstream in(tokenFile);
    if (!in)
        throw CliError("cannot read the token file " + tokenFile);
    std::stringstream text;
    text << in.rdbuf();
    std::string token = text.str();
    const auto blank = [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; };
    while (!token.empty() && blank(token.back()))
        token.pop_back();
    token.erase(token.begin(), std::find_if_not(token.begin(), token.end(), blank));
    return token;
}

// Answers may be as large as what the server accepts: a track's
// properties, an exported chunk.
std::shared_ptr<grpc::Channel> OpenChannel(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(rpc::kMaxMessageBytes);
    arguments.SetMaxSendMessageSize(rpc::kMaxMessageBytes);
    return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

std::string Track(int64_t id) {
    return "track " + std::to_string(id);
}

}  // namespace

StorageClient::StorageClient(const std::string& address, const std::string& tokenFile)
    : address_(address),
      token_(ReadToken(tokenFile)),
      channel_(OpenChannel(address)),
      storage_(rpc::TrackStorage::NewStub(channel_)),
      writer_(rpc::TrackWriter::NewStub(channel_)),
      reader_(rpc::TrackReader::NewStub(channel_)),
      retention_(rpc::TrackRetention::NewStub(channel_)) {}

StorageClient::~StorageClient() = default;

void StorageClient::Prepare(grpc::ClientContext& context, bool withDeadline) const {
    if (!token_.empty())
        context.AddMetadata("authorization", "Bearer " + token_);
    if (withDeadline)
        context.set_deadline(std::chrono::system_clock::now() + kCallTimeout);
}

void StorageClient::Fail(const grpc::Status& status, const std::string& what) const {
    switch (status.error_code()) {
        case grpc::StatusCode::UNAVAILABLE:
            throw ServerUnavailable(
                "cannot reach the loopstore server at " + address_ +
                " (is it running? start it with 'loopstore serve'): " + status.error_message());
        case grpc::StatusCode::UNAUTHENTICATED:
        case grpc::StatusCode::PERMISSION_DENIED:
            throw CliError(what + ": access refused (give the server's token with --token-file): " +
                           status.error_message());
        case grpc::StatusCode::DEADLINE_EXCEEDED:
            throw ServerUnavailable(what + ": the server did not answer in time");
        case grpc::StatusCode::CANCELLED:
            // A stopping server cancels the calls it is serving.
            throw ServerUnavailable(what + ": the server ended the call (" +
                                    status.error_message() + ")");
        default:
            throw CliError(what + ": " + status.error_message());
    }
}

void StorageClient::Check(const grpc::Status& status, const std::string& what) const {
    if (!status.ok())
        Fail(status, what);
}

// One unary call: context with token and deadline, checked status.
#define LOOPSTORE_CALL(method, request, reply, what)              \
    do {                                                          \
        grpc::ClientContext context;                              \
        Prepare(context, true);                                   \
        Check(storage_->method(&context, request, &reply), what); \
    } while (false)

int64_t StorageClient::CreateTrack(int64_t id, uint64_t size) {
    Protocol::TrackParameters request;
    request.set_id(id);
    request.set_size(static_cast<int64_t>(size));
    rpc::CreateTrackAnswer answer;
    LOOPSTORE_CALL(CreateTrack, request, answer, "creating " + Track(id));
    if (answer.status() != 1)
        throw CliError(
            "the server refused to create the track (is there a pool? is the size "
            "at least one pool file?)");
    return answer.answer().id();
}

Protocol::TrackParameters StorageClient::GrowTrack(int64_t id, int64_t delta) {
    Protocol::TrackParameters request;
    request.set_id(id);
    request.set_size(delta);
    Protocol::TrackParameters answer;
    LOOPSTORE_CALL(GrowTrack, request, answer, "resizing " + Track(id));
    return answer;
}

Protocol::TrackParameters StorageClient::DeleteTrack(int64_t id) {
    rpc::TrackId request;
    request.set_id(id);
    Protocol::TrackParameters answer;
    LOOPSTORE_CALL(DeleteTrack, request, answer, "deleting " + Track(id));
    return answer;
}

void StorageClient::ClearTrack(int64_t id) {
    rpc::TrackId request;
    request.set_id(id);
    rpc::Empty answer;
    LOOPSTORE_CALL(ClearTrack, request, answer, "clearing " + Track(id));
}

void StorageClient::SetTrackMaxAge(int64_t id, TimePoint maxAge) {
    rpc::TrackMaxAge request;
    request.set_track_id(id);
    request.mutable_max_age()->set_nanoseconds(maxAge.ToNanoseconds());
    rpc::Empty answer;
    grpc::ClientContext context;
    Prepare(context, true);
    Check(retention_->SetTrackMaxAge(&context, request, &answer),
          "setting the max age of " + Track(id));
}

std::vector<int64_t> StorageClient::ListTracks() {
    Protocol::TrackList answer;
    LOOPSTORE_CALL(ListTracks, rpc::Empty(), answer, "listing the tracks");
    return {answer.ids().begin(), answer.ids().end()};
}

void StorageClient::RequireTrack(int64_t id) {
    const std::vector<int64_t> ids = ListTracks();
    if (std::find(ids.begin(), ids.end(), id) == ids.end())
        throw CliError("unknown track " + std::to_string(id) + " on the server at " + address_);
}

Protocol::TrackInfos StorageClient::GetTrackInfos(const std::vector<int64_t>& ids) {
    Protocol::Ids request;
    for (int64_t id : ids)
        request.add_ids(id);
    Protocol::TrackInfos answer;
    LOOPSTORE_CALL(GetTrackInfos, request, answer, "reading track information");
    return answer;
}

int64_t StorageClient::GetRemainingSpace() {
    rpc::Bytes answer;
    LOOPSTORE_CALL(GetRemainingSpace, rpc::Empty(), answer, "reading the free space");
    return answer.value();
}

StorageClient::TimePoint StorageClient::GetEndOfTrack(int64_t id) {
    rpc::TrackId request;
    request.set_id(id);
    Protocol::TimePoint answer;
    LOOPSTORE_CALL(GetEndOfTrack, request, answer, "reading the end of " + Track(id));
    return Converter::From(answer);
}

StorageClient::TimePoint StorageClient::GetBeginningOfTrack(int64_t id) {
    rpc::TrackId request;
    request.set_id(id);
    Protocol::TimePoint answer;
    LOOPSTORE_CALL(GetBeginningOfTrack, request, answer, "reading the beginning of " + Track(id));
    return Converter::From(answer);
}

int64_t StorageClient::GetNumberOfChunks(int64_t id, TimePoint from, TimePoint to) {
    rpc::Range request;
    request.set_track_id(id);
    *request.mutable_from() = Converter::To(from);
    *request.mutable_to() = Converter::To(to);
    rpc::Count answer;
    LOOPSTORE_CALL(GetNumberOfChunks, request, answer, "counting the chunks of " + Track(id));
    return answer.value();
}

int64_t StorageClient::Protect(int64_t id, TimePoint from, TimePoint duration,
                               const std::string& label, std::optional<TimePoint> expires) {
    rpc::ProtectRequest request;
    request.set_track_id(id);
    *request.mutable_from() = Converter::To(from);
    *request.mutable_duration() = Converter::To(duration);
    request.set_label(label);
    if (expires)
        *request.mutable_expires() = Converter::To(*expires);
    rpc::ProtectionId answer;
    LOOPSTORE_CALL(Protect, request, answer, "protecting " + Track(id));
    return answer.id();
}

void StorageClient::Unprotect(int64_t protectionId) {
    rpc::ProtectionId request;
    request.set_id(protectionId);
    rpc::Empty answer;
    LOOPSTORE_CALL(Unprotect, request, answer,
                   "removing protection " + std::to_string(protectionId));
}

Protocol::ProtectionInfos StorageClient::ListProtections() {
    Protocol::ProtectionInfos answer;
    LOOPSTORE_CALL(ListProtections, rpc::Empty(), answer, "listing the protections");
    return answer;
}

void StorageClient::SetTrackProperties(int64_t id,
                                       const std::map<std::string, std::string>& properties) {
    rpc::TrackProperties request;
    request.set_track_id(id);
    for (const auto& [key, value] : properties) {
        Protocol::Property* p = request.mutable_properties()->add_properties();
        p->set_key(key);
        p->set_value(value);
    }
    rpc::Empty answer;
    LOOPSTORE_CALL(SetTrackProperties, request, answer, "setting properties of " + Track(id));
}

std::map<std::string, std::string> StorageClient::GetTrackProperties(int64_t id) {
    rpc::TrackId request;
    request.set_id(id);
    Protocol::PropertyList answer;
    LOOPSTORE_CALL(GetTrackProperties, request, answer, "reading properties of " + Track(id));
    std::map<std::string, std::string> out;
    for (const Protocol::Property& p : answer.properties())
        out[p.key()] = p.value();
    return out;
}

void StorageClient::RemoveTrackProperties(int64_t id, const std::vector<std::string>& keys) {
    rpc::TrackProperties request;
    request.set_track_id(id);
    for (const std::string& key : keys)
        request.mutable_properties()->add_properties()->set_key(key);
    rpc::Empty answer;
    LOOPSTORE_CALL(RemoveTrackProperties, request, answer, "removing properties of " + Track(id));
}

rpc::ActiveWorkers StorageClient::GetActiveWorkers() {
    rpc::ActiveWorkers answer;
    LOOPSTORE_CALL(GetActiveWorkers, rpc::Empty(), answer, "listing the workers");
    return answer;
}

Protocol::WorkerInfos StorageClient::GetWorkerInfos(const std::vector<int64_t>& ids) {
    Protocol::Ids request;
    for (int64_t id : ids)
        request.add_ids(id);
    Protocol::WorkerInfos answer;
    LOOPSTORE_CALL(GetWorkerInfos, request, answer, "reading worker information");
    return answer;
}

#undef LOOPSTORE_CALL

std::unique_ptr<TrackWriteStream> StorageClient::OpenWriter(int64_t id) {
    return std::make_unique<TrackWriteStream>(*this, *writer_, id);
}

uint64_t StorageClient::Export(int64_t id, TimePoint from, TimePoint to,
                               const std::function<void(const Protocol::Chunk&)>& onChunk,
                               Damaged* damaged) {
    ExportStream stream(*this, *reader_, id, from, to);
    Protocol::Chunk chunk;
    uint64_t count = 0;
    for (; stream.Next(chunk); ++count)
        onChunk(chunk);
    const Damaged skipped = stream.Finish();
    if (damaged != nullptr)
        *damaged = skipped;
    return count;
}

std::unique_ptr<ExportStream> StorageClient::OpenExport(int64_t id, TimePoint from, TimePoint to) {
    return std::make_unique<ExportStream>(*this, *reader_, id, from, to);
}

}  // namespace loopstore::cli
