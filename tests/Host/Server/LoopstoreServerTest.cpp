#include "Host/Server/LoopstoreServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "Host/Rpc/WireConstants.h"
#include "Host/Server/ServerMain.h"
#include "Platform/Logging/LogCapture.h"
#include "Storage/Indexes/SQLite/TrackDB.h"
#include "tests/Host/Server/ServerFixture.h"

using grpc::StatusCode;
using loopstore::test::At;
using loopstore::test::ChunkAt;
using loopstore::test::OpenWrite;
using loopstore::test::ServerFixture;
namespace rpc = loopstore::rpc;

namespace {

constexpr int64_t kSecond = ServerFixture::kSecond;
constexpr long kFile = static_cast<long>(ServerFixture::kFileSize);

rpc::TrackId Id(long id) {
    rpc::TrackId request;
    request.set_id(id);
    return request;
}

rpc::Range Between(long track, int64_t from, int64_t to) {
    rpc::Range range;
    range.set_track_id(track);
    *range.mutable_from() = At(from);
    *range.mutable_to() = At(to);
    return range;
}

rpc::ReadRequest Op(rpc::ReadRequest::Operation operation, int64_t at) {
    rpc::ReadRequest request;
    request.set_operation(operation);
    *request.mutable_at() = At(at);
    return request;
}

// Starts of the chunks an export of [from, to) streams back.
std::vector<int64_t> Export(ServerFixture& s, long track, int64_t from, int64_t to,
                            grpc::Status* status = nullptr) {
    rpc::ExportRequest request;
    request.set_track_id(track);
    *request.mutable_from() = At(from);
    *request.mutable_to() = At(to);
    auto context = s.Context();
    auto stream = s.Readers().Export(context.get(), request);
    std::vector<int64_t> starts;
    Protocol::Chunk chunk;
    while (stream->Read(&chunk)) {
        starts.push_back(chunk.timepoint().nanoseconds());
        EXPECT_EQ(std::string(20000, static_cast<char>('a' + (starts.back() / kSecond) % 26)),
                  chunk.data());
    }
    grpc::Status finished = stream->Finish();
    if (status != nullptr)
        *status = finished;
    else
        EXPECT_TRUE(finished.ok()) << finished.error_message();
    return starts;
}

std::vector<int64_t> Seconds(int64_t first, int64_t last) {
    std::vector<int64_t> out;
    for (int64_t s = first; s <= last; ++s)
        out.push_back(s * kSecond);
    return out;
}

TEST(LoopstoreServerTest, TrackLifecycleOverTheNetwork) {
    ServerFixture s(8);
    auto& tracks = s.Tracks();
    rpc::Empty empty;

    const long track = s.CreateTrack(0, 2);
    ASSERT_GT(track, 0);
    rpc::Bytes bytes;
    ASSERT_TRUE(tracks.GetRemainingSpace(s.Context().get(), empty, &bytes).ok());
    EXPECT_EQ(6 * kFile, bytes.value());

    Protocol::TrackParameters grow, grown;
    grow.set_id(track);
    grow.set_size(2 * kFile);
    ASSERT_TRUE(tracks.GrowTrack(s.Context().get(), grow, &grown).ok());
    ASSERT_TRUE(tracks.GetTrackSize(s.Context().get(), Id(track), &bytes).ok());
    EXPECT_EQ(4 * kFile, bytes.value());

    Protocol::TrackList list;
    ASSERT_TRUE(tracks.ListTracks(s.Context().get(), empty, &list).ok());
    ASSERT_EQ(1, list.ids_size());
    EXPECT_EQ(track, list.ids(0));

    ASSERT_TRUE(s.Record(track, 10 * kSecond, 6).ok());
    Protocol::TimePoint tp;
    ASSERT_TRUE(tracks.GetBeginningOfTrack(s.Context().get(), Id(track), &tp).ok());
    EXPECT_EQ(10 * kSecond, tp.nanoseconds());
    ASSERT_TRUE(tracks.GetEndOfTrack(s.Context().get(), Id(track), &tp).ok());
    EXPECT_EQ(16 * kSecond, tp.nanoseconds());
    rpc::Count count;
    ASSERT_TRUE(
        tracks.GetNumberOfChunks(s.Context().get(), Between(track, 0, 100 * kSecond), &count).ok());
    EXPECT_EQ(6, count.value());
    ASSERT_TRUE(
        tracks.GetAccumulatedDuration(s.Context().get(), Between(track, 0, 100 * kSecond), &tp)
            .ok());
    EXPECT_EQ(6 * kSecond, tp.nanoseconds());

    Protocol::Ids ids;
    ids.add_ids(track);
    ids.add_ids(track + 100);  // unknown ids are skipped
    Protocol::TrackInfos infos;
    ASSERT_TRUE(tracks.GetTrackInfos(s.Context().get(), ids, &infos).ok());
    ASSERT_EQ(1, infos.infos_size());
    EXPECT_EQ(10 * kSecond, infos.infos(0).beginning().nanoseconds());

    // Protections.
    rpc::ProtectRequest protect;
    protect.set_track_id(track);
    *protect.mutable_from() = At(10 * kSecond);
    *protect.mutable_duration() = At(2 * kSecond);
    rpc::ProtectionId protection;
    ASSERT_TRUE(tracks.Protect(s.Context().get(), protect, &protection).ok());
    EXPECT_NE(0, protection.id());
    Protocol::ProtectionInfos protections;
    ASSERT_TRUE(tracks.ListProtections(s.Context().get(), empty, &protections).ok());
    ASSERT_EQ(1, protections.infos_size());
    EXPECT_EQ(track, protections.infos(0).track_id());
    ASSERT_TRUE(tracks.Unprotect(s.Context().get(), protection, &empty).ok());
    ASSERT_TRUE(tracks.ListProtections(s.Context().get(), empty, &protections).ok());
    EXPECT_EQ(0, protections.infos_size());

    // Properties.
    rpc::TrackProperties props;
    props.set_track_id(track);
    auto* p = props.mutable_properties()->add_properties();
    p->set_key("camera");
    p->set_value("gate 3");
    p = props.mutable_properties()->add_properties();
    p->set_key("codec");
    p->set_value("h264");
    ASSERT_TRUE(tracks.SetTrackProperties(s.Context().get(), props, &empty).ok());
    props.mutable_properties()->mutable_properties()->DeleteSubrange(1, 1);
    ASSERT_TRUE(tracks.RemoveTrackProperties(s.Context().get(), props, &empty).ok());
    Protocol::PropertyList got;
    ASSERT_TRUE(tracks.GetTrackProperties(s.Context().get(), Id(track), &got).ok());
    ASSERT_EQ(1, got.properties_size());
    EXPECT_EQ("codec", got.properties(0).key());

    // No long commands in this storage.
    Protocol::Ids commands;
    ASSERT_TRUE(tracks.GetOngoingCommands(s.Context().get(), empty, &commands).ok());
    EXPECT_EQ(0, commands.ids_size());
    Protocol::CommandInfo command;
    ASSERT_TRUE(tracks.GetCommandInfo(s.Context().get(), Id(1), &command).ok());

    // Clear keeps the files; delete gives them back to the pool.
    ASSERT_TRUE(tracks.ClearTrack(s.Context().get(), Id(track), &empty).ok());
    ASSERT_TRUE(tracks.GetBeginningOfTrack(s.Context().get(), Id(track), &tp).ok());
    EXPECT_EQ(-1, tp.nanoseconds());
    Protocol::TrackParameters deleted;
    ASSERT_TRUE(tracks.DeleteTrack(s.Context().get(), Id(track), &deleted).ok());
    ASSERT_TRUE(tracks.GetRemainingSpace(s.Context().get(), empty, &bytes).ok());
    EXPECT_EQ(8 * kFile, bytes.value());
}

TEST(LoopstoreServerTest, ReadSessionNavigatesAndHoldsTheTrack) {
    ServerFixture s(4);
    const long track = s.CreateTrack(3, 3);
    ASSERT_EQ(3, track);
    ASSERT_TRUE(s.Record(track, 10 * kSecond, 5).ok());

    auto context = s.Context();
    auto session = s.Readers().Session(context.get());
    rpc::ReadRequest request = Op(rpc::ReadRequest::GET_CHUNK, 12 * kSecond + 5);
    request.mutable_open()->set_track_id(track);
    ASSERT_TRUE(session->Write(request));
    rpc::ReadReply reply;
    ASSERT_TRUE(session->Read(&reply));
    EXPECT_TRUE(reply.found());
    EXPECT_EQ(12 * kSecond, reply.chunk().timepoint().nanoseconds());

    struct Case {
        rpc::ReadRequest::Operation operation;
        int64_t at;
        bool found;
        int64_t answer;
    };
    const Case cases[] = {
        {rpc::ReadRequest::GET_NEXT_CHUNK, 12 * kSecond, true, 13 * kSecond},
        {rpc::ReadRequest::GET_PREVIOUS_CHUNK, 12 * kSecond, true, 11 * kSecond},
        {rpc::ReadRequest::NEXT_TIME_POINT, 10 * kSecond, true, 11 * kSecond},
        {rpc::ReadRequest::PREVIOUS_TIME_POINT, 14 * kSecond, true, 13 * kSecond},
        {rpc::ReadRequest::GET_CHUNK, 5 * kSecond, false, 0},
        {rpc::ReadRequest::GET_NEXT_CHUNK, 14 * kSecond, false, 0},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(session->Write(Op(c.operation, c.at)));
        ASSERT_TRUE(session->Read(&reply));
        EXPECT_EQ(c.found, reply.found()) << c.operation << " at " << c.at;
        if (!c.found)
            continue;
        const bool timeOnly = c.operation == rpc::ReadRequest::NEXT_TIME_POINT ||
                              c.operation == rpc::ReadRequest::PREVIOUS_TIME_POINT;
        EXPECT_EQ(c.answer, timeOnly ? reply.time_point().nanoseconds()
                                     : reply.chunk().timepoint().nanoseconds())
            << c.operation << " at " << c.at;
    }

    // The open reader shows in monitoring under this client's address, and
    // keeps the track from being deleted.
    rpc::ActiveWorkers workers;
    ASSERT_TRUE(s.Tracks().GetActiveWorkers(s.Context().get(), rpc::Empty(), &workers).ok());
    ASSERT_EQ(1, workers.worker_ids().ids_size());
    EXPECT_EQ(track, workers.track_ids().ids(0));
    Protocol::WorkerInfos infos;
    ASSERT_TRUE(s.Tracks().GetWorkerInfos(s.Context().get(), workers.worker_ids(), &infos).ok());
    ASSERT_EQ(1, infos.infos_size());
    EXPECT_NE(std::string::npos, infos.infos(0).description().find("127.0.0.1"));
    Protocol::TrackParameters deleted;
    grpc::Status refused = s.Tracks().DeleteTrack(s.Context().get(), Id(track), &deleted);
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION, refused.error_code());
    EXPECT_NE(std::string::npos, refused.error_message().find("active workers"));

    ASSERT_TRUE(session->WritesDone());
    ASSERT_TRUE(session->Finish().ok());
    ASSERT_TRUE(s.Tracks().GetActiveWorkers(s.Context().get(), rpc::Empty(), &workers).ok());
    EXPECT_EQ(0, workers.worker_ids().ids_size());
    EXPECT_TRUE(s.Tracks().DeleteTrack(s.Context().get(), Id(track), &deleted).ok());
}

TEST(LoopstoreServerTest, ExportStreamsEveryChunkOverlappingTheRange) {
    ServerFixture s(4);
    const long track = s.CreateTrack(1, 4);
    ASSERT_TRUE(s.Record(track, 10 * kSecond, 8).ok());

    EXPECT_EQ(Seconds(10, 17), Export(s, track, 0, 100 * kSecond));
    // The chunk holding `from` is included; the one starting at `to` is not.
    EXPECT_EQ(Seconds(12, 14), Export(s, track, 12 * kSecond + 500, 15 * kSecond));
    EXPECT_TRUE(Export(s, track, 30 * kSecond, 40 * kSecond).empty());

    grpc::Status status;
    Export(s, track, 15 * kSecond, 12 * kSecond, &status);
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code());
    Export(s, 99, 0, kSecond, &status);
    EXPECT_EQ(StatusCode::NOT_FOUND, status.error_code());
}

TEST(LoopstoreServerTest, RefusalsGetFittingCodesAndTheServerCarriesOn) {
    ServerFixture s(4);
    const long track = s.CreateTrack(1, 2);

    // Unknown track, for writing, reading and resizing.
    grpc::Status status = s.Record(42, 0, 1);
    EXPECT_EQ(StatusCode::NOT_FOUND, status.error_code());
    EXPECT_NE(std::string::npos, status.error_message().find("has not been created"));
    Protocol::TrackParameters grow, answer;
    grow.set_id(42);
    grow.set_size(kFile);
    EXPECT_EQ(StatusCode::NOT_FOUND,
              s.Tracks().GrowTrack(s.Context().get(), grow, &answer).error_code());
    {
        auto context = s.Context();
        auto session = s.Readers().Session(context.get());
        rpc::ReadRequest open = Op(rpc::ReadRequest::GET_CHUNK, 0);
        open.mutable_open()->set_track_id(42);
        session->Write(open);
        session->WritesDone();
        EXPECT_EQ(StatusCode::NOT_FOUND, session->Finish().error_code());
    }

    // Bad times: before the end of the track, zero duration. The chunks
    // before the refusal are kept.
    ASSERT_TRUE(s.Record(track, 10 * kSecond, 2).ok());
    status = s.Record(track, 11 * kSecond, 1);
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code());
    EXPECT_NE(std::string::npos, status.error_message().find("is < end of track"));
    {
        auto context = s.Context();
        rpc::WriteSummary summary;
        auto stream = s.Writers().Write(context.get(), &summary);
        stream->Write(OpenWrite(track));
        stream->Write(ChunkAt(20 * kSecond, kSecond, 100));
        stream->Write(ChunkAt(21 * kSecond, 0, 100));
        stream->WritesDone();
        status = stream->Finish();
        EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code());
        EXPECT_NE(std::string::npos, status.error_message().find("strictly positive"));
    }
    Protocol::TimePoint end;
    ASSERT_TRUE(s.Tracks().GetEndOfTrack(s.Context().get(), Id(track), &end).ok());
    EXPECT_EQ(21 * kSecond, end.nanoseconds());

    // A stream that does not start by naming its track.
    {
        auto context = s.Context();
        rpc::WriteSummary summary;
        auto stream = s.Writers().Write(context.get(), &summary);
        stream->Write(ChunkAt(30 * kSecond, kSecond, 100));
        stream->WritesDone();
        EXPECT_EQ(StatusCode::INVALID_ARGUMENT, stream->Finish().error_code());
    }

    // A second writer on the same track while the first stream is open.
    auto firstContext = s.Context();
    rpc::WriteSummary firstSummary;
    auto first = s.Writers().Write(firstContext.get(), &firstSummary);
    first->Write(OpenWrite(track));
    first->Write(ChunkAt(40 * kSecond, kSecond, 100));
    // The writer exists once it shows in monitoring.
    rpc::ActiveWorkers workers;
    while (workers.worker_ids().ids_size() == 0)
        ASSERT_TRUE(s.Tracks().GetActiveWorkers(s.Context().get(), rpc::Empty(), &workers).ok());
    status = s.Record(track, 50 * kSecond, 1);
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION, status.error_code());
    EXPECT_NE(std::string::npos, status.error_message().find("already being written to"));
    first->WritesDone();
    ASSERT_TRUE(first->Finish().ok());
    EXPECT_EQ(1, firstSummary.chunks());
    EXPECT_EQ(41 * kSecond, firstSummary.end().nanoseconds());

    // Creating an existing track; asking for more files than the pool has.
    rpc::CreateTrackAnswer created;
    Protocol::TrackParameters again;
    again.set_id(track);
    again.set_size(kFile);
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION,
              s.Tracks().CreateTrack(s.Context().get(), again, &created).error_code());
    grow.set_id(track);
    grow.set_size(10 * kFile);
    EXPECT_EQ(StatusCode::RESOURCE_EXHAUSTED,
              s.Tracks().GrowTrack(s.Context().get(), grow, &answer).error_code());
}

// One write stream of `chunks` on `track`.
grpc::Status Write(ServerFixture& s, long track, const std::vector<rpc::WriteRequest>& chunks,
                   rpc::WriteSummary& summary) {
    auto context = s.Context();
    auto stream = s.Writers().Write(context.get(), &summary);
    stream->Write(OpenWrite(track));
    for (const rpc::WriteRequest& chunk : chunks) {
        if (!stream->Write(chunk))
            break;
    }
    stream->WritesDone();
    return stream->Finish();
}

// The chunks of `messages` in one batch message.
rpc::WriteRequest BatchOf(const std::vector<rpc::WriteRequest>& messages) {
    rpc::WriteRequest batch;
    for (const rpc::WriteRequest& message : messages)
        *batch.mutable_batch()->add_chunks() = message.chunk();
    return batch;
}

TEST(LoopstoreServerTest, WhatTheStoreCannotKeepIsRefusedAndWhatItKeepsIsCounted) {
    ServerFixture s(6);
    const long track = s.CreateTrack(1, 2);
    const int64_t last = std::numeric_limits<int64_t>::max();
    rpc::WriteRequest heavy = ChunkAt(kSecond, kSecond, 100);
    Protocol::Property* property = heavy.mutable_chunk()->add_properties();
    property->set_key("heavy");
    property->set_value(std::string(kFile, 'p'));
    const std::pair<rpc::WriteRequest, const char*> refused[] = {
        {ChunkAt(last - 10, 100, 100), "ends outside the range of time points"},
        {ChunkAt(kSecond, last, 100), "ends outside the range of time points"},
        {ChunkAt(kSecond, kSecond, kFile), "cannot hold a chunk of size"},
        {heavy, "cannot hold a chunk of size"},
        // The largest message gets through the server's bounded receive
        // window to the store, which has no file to hold it.
        {ChunkAt(kSecond, kSecond, rpc::kMaxMessageBytes - 1024), "cannot hold a chunk of size"},
    };
    for (const auto& [chunk, text] : refused) {
        rpc::WriteSummary summary;
        const grpc::Status status = Write(s, track, {chunk}, summary);
        EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code()) << status.error_message();
        EXPECT_NE(std::string::npos, status.error_message().find(text)) << status.error_message();
    }

    // A refusal says what the stream stored before it.
    rpc::WriteSummary partial;
    const grpc::Status late =
        Write(s, track, {ChunkAt(kSecond, kSecond, 100), ChunkAt(2 * kSecond, last, 100)}, partial);
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, late.error_code());
    EXPECT_NE(std::string::npos, late.error_message().find("(1 chunks of this stream stored)"))
        << late.error_message();
    // Even in the middle of a batch.
    const grpc::Status batchLate =
        Write(s, track,
              {BatchOf({ChunkAt(2 * kSecond, kSecond, 100), ChunkAt(3 * kSecond, 0, 100),
                        ChunkAt(4 * kSecond, kSecond, 100)})},
              partial);
    EXPECT_EQ(StatusCode::INVALID_ARGUMENT, batchLate.error_code());
    EXPECT_NE(std::string::npos, batchLate.error_message().find("(1 chunks of this stream stored)"))
        << batchLate.error_message();

    // What is accepted is stored, up to the end of time, batched or not.
    rpc::WriteSummary summary;
    ASSERT_TRUE(Write(s, track,
                      {ChunkAt(3 * kSecond, kSecond, 100),
                       BatchOf({ChunkAt(4 * kSecond, kSecond, 100),
                                ChunkAt(last - 2 * kSecond, kSecond, 100)})},
                      summary)
                    .ok());
    EXPECT_EQ(3, summary.chunks());
    EXPECT_EQ(300, summary.bytes());
    EXPECT_EQ(3, summary.stored());
    EXPECT_EQ(last - kSecond, summary.end().nanoseconds());
    rpc::Count count;
    ASSERT_TRUE(
        s.Tracks().GetNumberOfChunks(s.Context().get(), Between(track, 0, last), &count).ok());
    EXPECT_EQ(5, count.value());

    // A track left without files refuses chunks.
    Protocol::TrackParameters shrink, answer;
    shrink.set_id(track);
    shrink.set_size(-2 * kFile);
    ASSERT_TRUE(s.Tracks().GrowTrack(s.Context().get(), shrink, &answer).ok());
    const grpc::Status empty = Write(s, track, {ChunkAt(last - kSecond, 10, 100)}, summary);
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION, empty.error_code()) << empty.error_message();
    EXPECT_NE(std::string::npos, empty.error_message().find("You must call GrowTrack"));

    // No id is left after the greatest one.
    EXPECT_EQ(last, s.CreateTrack(last, 1));
    Protocol::TrackParameters create;
    create.set_size(kFile);
    rpc::CreateTrackAnswer created;
    const grpc::Status noId = s.Tracks().CreateTrack(s.Context().get(), create, &created);
    EXPECT_EQ(StatusCode::FAILED_PRECONDITION, noId.error_code()) << noId.error_message();
    EXPECT_NE(std::string::npos, noId.error_message().find("no track id is left after"));
    EXPECT_EQ(2, s.CreateTrack(2, 1));
}

TEST(LoopstoreServerTest, BadProtectionsAndPropertiesAreInvalidArguments) {
    ServerFixture s(4);
    const long track = s.CreateTrack(1, 2);
    ASSERT_TRUE(s.Record(track, 10 * kSecond, 3).ok());
    const int64_t last = std::numeric_limits<int64_t>::max();
    auto protect = [&](int64_t from, int64_t duration) {
        rpc::ProtectRequest request;
        request.set_track_id(track);
        *request.mutable_from() = At(from);
        *request.mutable_duration() = At(duration);
        rpc::ProtectionId id;
        return s.Tracks().Protect(s.Context().get(), request, &id);
    };
    const std::pair<grpc::Status, const char*> protections[] = {
        {protect(10 * kSecond, 0), "must be > timepoint IN"},
        {protect(10 * kSecond, -kSecond), "must be > timepoint IN"},
        {protect(10 * kSecond, last), "ends outside the range of time points"},
    };
    for (const auto& [status, text] : protections) {
        EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code()) << status.error_message();
        EXPECT_NE(std::string::npos, status.error_message().find(text)) << status.error_message();
    }
    EXPECT_TRUE(protect(0, last).ok());  // up to the end of time

    auto setProperty = [&](const std::string& key, const std::string& value) {
        rpc::TrackProperties request;
        request.set_track_id(track);
        Protocol::Property* property = request.mutable_properties()->add_properties();
        property->set_key(key);
        property->set_value(value);
        rpc::Empty empty;
        return s.Tracks().SetTrackProperties(s.Context().get(), request, &empty);
    };
    const std::pair<grpc::Status, const char*> properties[] = {
        {setProperty("\xff\xfe", "v"), "is not valid UTF-8"},
        {setProperty("k", "\xc3"), "is not valid UTF-8"},
        {setProperty(std::string(1025, 'k'), "v"), "1025 bytes, more than 1024"},
        {setProperty("k", std::string(64 * 1024 + 1, 'v')), "65537 bytes, more than 65536"},
        {setProperty("k", std::string(10 * 1000 * 1000, 'v')), "more than 65536"},
    };
    for (const auto& [status, text] : properties) {
        EXPECT_EQ(StatusCode::INVALID_ARGUMENT, status.error_code()) << status.error_message();
        EXPECT_NE(std::string::npos, status.error_message().find(text)) << status.error_message();
    }
    // The largest property is taken and read back.
    ASSERT_TRUE(setProperty(std::string(1024, 'k'), std::string(64 * 1024, 'v')).ok());
    Protocol::PropertyList list;
    ASSERT_TRUE(s.Tracks().GetTrackProperties(s.Context().get(), Id(track), &list).ok());
    ASSERT_EQ(1, list.properties_size());
    EXPECT_EQ(64u * 1024, list.properties(0).value().size());
}

TEST(LoopstoreServerTest, TokenIsRequiredWhenConfigured) {
    ServerFixture s(2, "s3cret");
    rpc::Bytes bytes;
    EXPECT_EQ(StatusCode::UNAUTHENTICATED,
              s.Tracks().GetRemainingSpace(s.Context().get(), rpc::Empty(), &bytes).error_code());
    EXPECT_EQ(
        StatusCode::UNAUTHENTICATED,
        s.Tracks().GetRemainingSpace(s.Context("s3cre").get(), rpc::Empty(), &bytes).error_code());
    EXPECT_TRUE(s.Tracks().GetRemainingSpace(s.Context("s3cret").get(), rpc::Empty(), &bytes).ok());
    EXPECT_EQ(2 * kFile, bytes.value());

    // Streams too: no writer is created without the token.
    EXPECT_EQ(StatusCode::UNAUTHENTICATED, s.Record(1, 0, 1).error_code());
}

TEST(LoopstoreServerTest, ListeningBeyondLoopbackNeedsFlagAndToken) {
    loopstore::test::TempDir dir;
    loopstore::host::ServerOptions options;
    options.tracksDir = dir / "tracks";
    options.dbDir = dir / "db";
    options.poolDir = dir / "pool";
    options.listenAddress = "0.0.0.0:0";
    EXPECT_THROW(loopstore::host::LoopstoreServer(options).Start(), std::runtime_error);
    options.allowRemote = true;
    EXPECT_THROW(loopstore::host::LoopstoreServer(options).Start(), std::runtime_error);
    options.tokenFile = dir / "missing-token";
    EXPECT_THROW(loopstore::host::LoopstoreServer(options).Start(), std::runtime_error);
    options.tokenFile = dir / "token";
    std::ofstream(options.tokenFile) << "t0ken\n";
    loopstore::host::LoopstoreServer server(options);
    server.Start();
    EXPECT_GT(server.Port(), 0);
    server.Stop();
    EXPECT_EQ(0, server.Port());

    // A failed start leaves nothing open: the same storage starts again.
    options.listenAddress = "127.0.0.1:0";
    options.tokenFile.clear();
    loopstore::host::LoopstoreServer again(options);
    again.Start();
    EXPECT_THROW(again.Start(), std::runtime_error);
}

TEST(LoopstoreServerTest, StopWithAnOpenWriteStreamSavesWhatWasAccepted) {
    tav::mr::logging::LogCapture capture("TrackWriterRpc");
    ServerFixture s(6);
    const long track = s.CreateTrack(1, 5);
    constexpr int kSent = 7;

    auto context = s.Context();
    rpc::WriteSummary summary;
    auto stream = s.Writers().Write(context.get(), &summary);
    ASSERT_TRUE(stream->Write(OpenWrite(track)));
    for (int i = 0; i < kSent; ++i)
        ASSERT_TRUE(stream->Write(ChunkAt((10 + i) * kSecond, kSecond, 20000)));
    // Wait until the writer has taken every chunk into the track's index.
    rpc::Count count;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (count.value() < kSent && std::chrono::steady_clock::now() < deadline) {
        ASSERT_TRUE(
            s.Tracks()
                .GetNumberOfChunks(s.Context().get(), Between(track, 0, 100 * kSecond), &count)
                .ok());
        std::this_thread::yield();
    }
    ASSERT_EQ(kSent, count.value());

    s.Stop();  // the client never closed its stream
    EXPECT_FALSE(stream->Finish().ok());
    EXPECT_EQ(1u, capture.Count("(cancelled) after 7 chunks"));

    // The writer was destroyed before the storage: the track is not left
    // active, so the next start has no unclean stop to repair.
    {
        TrackDB db;
        ASSERT_TRUE(db.Open(s.Options().dbDir, track));
        EXPECT_FALSE(db.IsActive());
    }
    s.Start();
    EXPECT_EQ(Seconds(10, 10 + kSent - 1), Export(s, track, 0, 100 * kSecond));
}

// The writers of every stream share the server's cache memory: two tracks
// of 200 KB each pass through 100 KB, and the stop reports how it went.
TEST(LoopstoreServerTest, WritersShareTheCacheMemoryAndStopReportsIt) {
    tav::mr::logging::LogCapture capture("LoopstoreServer");
    ServerFixture s(8);
    s.Stop();
    s.Options().cacheMemoryBytes = 100000;
    s.Start();
    for (long track : {s.CreateTrack(1, 4), s.CreateTrack(2, 4)})
        ASSERT_TRUE(s.Record(track, 10 * kSecond, 10).ok());
    s.Stop();

    const std::string prefix = "Chunk cache: ";
    std::string report;
    for (const std::string& text : capture.Texts()) {
        if (text.rfind(prefix, 0) == 0)
            report = text;
    }
    unsigned long inUse = 0, peak = 0, limit = 0, dropped = 0;
    ASSERT_EQ(4, std::sscanf(report.c_str(),
                             "Chunk cache: %luB in use, at most %luB, limit %luB, %lu written",
                             &inUse, &peak, &limit, &dropped))
        << report;
    EXPECT_EQ(limit, 100000u);
    EXPECT_GT(peak, 0u);
    EXPECT_LE(peak, limit);
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(inUse, 0u);  // every writer ended: its cache was emptied
    s.Start();
    EXPECT_EQ(Seconds(10, 19), Export(s, 1, 0, 100 * kSecond));
}

TEST(LoopstoreServerTest, RunServerStopsOnRequest) {
    loopstore::test::TempDir dir;
    loopstore::host::ServerOptions options;
    options.tracksDir = dir / "tracks";
    options.dbDir = dir / "db";
    options.poolDir = dir / "pool";
    options.listenAddress = "127.0.0.1:0";

    // A refused configuration returns at once with an error code.
    options.listenAddress = "0.0.0.0:0";
    EXPECT_NE(0, loopstore::host::RunServer(options));

    options.listenAddress = "127.0.0.1:0";
    std::atomic<bool> done{false};
    int code = -1;
    std::thread server([&] {
        code = loopstore::host::RunServer(options);
        done = true;
    });
    // A request made before the server is waiting is lost; one made after
    // is kept until it waits. Keep asking until it has returned.
    while (!done) {
        loopstore::host::RequestStop();
        std::this_thread::yield();
    }
    server.join();
    EXPECT_EQ(0, code);
}

TEST(LoopstoreServerTest, DamagedRecordsAndLostDataAreDataLoss) {
    ServerFixture s(4);
    const long track = s.CreateTrack(1, 2);
    ASSERT_TRUE(s.Record(track, 10 * kSecond, 2).ok());
    // A clean stop writes every chunk to its file; the restarted server
    // reads them from there, not from a cache.
    s.Stop();
    const std::filesystem::path trackDir =
        std::filesystem::path(s.Options().tracksDir) / std::to_string(track);
    for (const auto& entry : std::filesystem::directory_iterator(trackDir)) {
        // Inside the payload of a file's first record, if it has one.
        std::fstream file(entry.path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(1000);
        file.put('\x5a').put('\xa5');
    }
    s.Start();

    auto context = s.Context();
    auto session = s.Readers().Session(context.get());
    rpc::ReadRequest request = Op(rpc::ReadRequest::GET_CHUNK, 10 * kSecond);
    request.mutable_open()->set_track_id(track);
    ASSERT_TRUE(session->Write(request));
    rpc::ReadReply reply;
    EXPECT_FALSE(session->Read(&reply));
    const grpc::Status status = session->Finish();
    EXPECT_EQ(StatusCode::DATA_LOSS, status.error_code()) << status.error_message();
    EXPECT_NE(std::string::npos, status.error_message().find("bad record"));
}

}  // namespace
