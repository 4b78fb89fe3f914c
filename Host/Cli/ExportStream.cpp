#include "Host/Cli/ExportStream.h"

#include <sstream>
#include <string>

#include "Host/Rpc/WireConstants.h"
#include "Platform/Plexa/Converter.h"

namespace loopstore::cli {

using Moreld::Plexa::Converter;

namespace {

std::string Metadata(const std::multimap<grpc::string_ref, grpc::string_ref>& metadata,
                     const char* key) {
    auto it = metadata.find(key);
    return it == metadata.end() ? std::string() : std::string(it->second.data(), it->second.size());
}

StorageClient::Damaged ReadDamaged(
    const std::multimap<grpc::string_ref, grpc::string_ref>& trailer) {
    StorageClient::Damaged damaged;
    const std::string count = Metadata(trailer, rpc::kDamagedRecordsKey);
    if (count.empty())
        return damaged;
    damaged.count = std::stoull(count);
    std::stringstream listed(Metadata(trailer, rpc::kDamagedAtKey));
    for (std::string ns; std::getline(listed, ns, ',');)
        damaged.at.push_back(Moreld::Time::TimePoint::FromNanoseconds(std::stoll(ns)));
    return damaged;
}

}  // namespace

ExportStream::ExportStream(const StorageClient& client, rpc::TrackReader::Stub& stub,
                           int64_t trackId, TimePoint from, TimePoint to)
    : client_(client), trackId_(trackId) {
    rpc::ExportRequest request;
    request.set_track_id(trackId);
    *request.mutable_from() = Converter::To(from);
    *request.mutable_to() = Converter::To(to);
    client_.Prepare(context_, false);
    stream_ = stub.Export(&context_, request);
}

ExportStream::~ExportStream() {
    if (finished_)
        return;
    // A stream must be finished before it is destroyed.
    context_.TryCancel();
    stream_->Finish();
}

bool ExportStream::Next(Protocol::Chunk& chunk) {
    return !finished_ && stream_->Read(&chunk);
}

StorageClient::Damaged ExportStream::Finish() {
    Protocol::Chunk rest;
    while (stream_->Read(&rest)) {
    }
    finished_ = true;
    client_.Check(stream_->Finish(), "exporting track " + std::to_string(trackId_));
    return ReadDamaged(context_.GetServerTrailingMetadata());
}

}  // namespace loopstore::cli
