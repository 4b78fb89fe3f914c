// Runs the built `loopstore` program against an in-process server on
// loopback, as a user or a script would.

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "Host/Cli/SyntheticPayload.h"
#include "Host/Rpc/Loopstore.grpc.pb.h"
#include "Host/Server/LoopstoreServer.h"
#include "Platform/Time/TimePoint.h"
#include "Platform/Tools/SyncPoint.h"
#include "tests/Support/SyncPoints.h"
#include "tests/Support/TempDir.h"

namespace loopstore::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
    json Json() const { return json::parse(out); }
};

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool HasProgram(const std::string& name) {
    return std::system(("command -v " + name + " > /dev/null 2>&1").c_str()) == 0;
}

// One MPEG-TS packet with a PCR (ns) and a payload byte that numbers it.
std::string TsPacket(int index, int64_t pcrNs) {
    std::string p(188, static_cast<char>('a' + index % 26));
    const uint64_t base = static_cast<uint64_t>(pcrNs) * 27 / 1000 / 300;
    p[0] = 0x47, p[1] = 0x01, p[2] = 0x00, p[3] = 0x30, p[4] = 7, p[5] = 0x10;
    p[6] = static_cast<char>(base >> 25), p[7] = static_cast<char>(base >> 17);
    p[8] = static_cast<char>(base >> 9), p[9] = static_cast<char>(base >> 1);
    p[10] = static_cast<char>(((base & 1) << 7) | 0x7e), p[11] = 0;
    return p;
}

// A loopback port that was free a moment ago (TCP, or UDP for `type`
// SOCK_DGRAM).
int FreePort(int type = SOCK_STREAM) {
    const int fd = ::socket(AF_INET, type, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length);
    ::close(fd);
    return ntohs(addr.sin_port);
}

class LoopstoreCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        data_ = dir_.Path() + "/data";
        fs::create_directories(data_ + "/tracks");
        fs::create_directories(data_ + "/db");
        ASSERT_EQ(Run("pool init " + data_ + "/pool --files 16 --size 1M").status, 0);
    }

    // On a free port, or again on `listen` (a restart).
    void StartServer(const std::string& listen = "127.0.0.1:0") {
        host::ServerOptions options;
        options.tracksDir = data_ + "/tracks";
        options.dbDir = data_ + "/db";
        options.poolDir = data_ + "/pool";
        options.listenAddress = listen;
        server_ = std::make_unique<host::LoopstoreServer>(options);
        server_->Start();
        address_ = "127.0.0.1:" + std::to_string(server_->Port());
    }
    void StopServer() { server_.reset(); }

    // Runs `loopstore <args>`; stdin from `input` when given.
    Result Run(const std::string& args, const std::string& input = "") {
        return Piped("", args + (input.empty() ? "" : " < " + input));
    }
    // Runs `<producer> | loopstore <args>`, or `loopstore <args>` alone.
    Result Piped(const std::string& producer, const std::string& args) {
        const std::string errFile = dir_ / "stderr";
        const std::string command = (producer.empty() ? "" : producer + " | ") +
                                    std::string(LOOPSTORE_BINARY) + " " + args + " 2>" + errFile;
        Result r;
        FILE* pipe = ::popen(command.c_str(), "r");
        char buffer[4096];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
            r.out.append(buffer, n);
        const int raw = ::pclose(pipe);
        r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
        r.err = ReadFile(errFile);
        return r;
    }
    // A server command with --server and --json.
    Result Call(const std::string& args) { return Run(args + " --json --server " + address_); }
    json Ok(const std::string& args) {
        const Result r = Call(args);
        EXPECT_EQ(r.status, 0) << args << ": " << r.err;
        return r.status == 0 ? r.Json() : json();
    }

    test::TempDir dir_;
    std::string data_;
    std::string address_;
    std::unique_ptr<host::LoopstoreServer> server_;
};

TEST_F(LoopstoreCommandTest, PoolInitMakesNumberedFilesOnceAndRejectsBadSizes) {
    EXPECT_EQ(fs::file_size(data_ + "/pool/00000001"), 1u << 20);
    EXPECT_TRUE(fs::exists(data_ + "/pool/00000016"));
    EXPECT_FALSE(fs::exists(data_ + "/pool/00000017"));
    const Result again = Run("pool init " + data_ + "/pool --files 2 --size 1M");
    EXPECT_NE(again.status, 0);
    EXPECT_NE(again.err.find("already holds pool files"), std::string::npos) << again.err;
    const Result bad = Run("pool init " + dir_.Path() + "/other --files 2 --size 12Q");
    EXPECT_NE(bad.status, 0);
    EXPECT_NE(bad.err.find("bad size '12Q'"), std::string::npos) << bad.err;
    EXPECT_EQ(Run("--help").status, 0);
    EXPECT_NE(Run("track --help").out.find("create"), std::string::npos);
}

TEST_F(LoopstoreCommandTest, EveryServerCommandAnswersInJson) {
    StartServer();
    const int64_t id = Ok("track create --size 4M")["id"];
    EXPECT_GT(id, 0);
    const std::string t = std::to_string(id);
    EXPECT_EQ(Ok("track list")["tracks"][0]["id"], id);
    EXPECT_EQ(Ok("space")["remaining_bytes"], 12 << 20);
    EXPECT_EQ(Ok("track grow " + t + " --by +1M")["track_size"], 5 << 20);
    EXPECT_EQ(Ok("track grow " + t + " --by -1M")["track_size"], 4 << 20);

    Ok("props set " + t + " camera=north fps=25");
    EXPECT_EQ(Ok("props get " + t)["properties"], json({{"camera", "north"}, {"fps", "25"}}));
    Ok("props rm " + t + " fps");
    EXPECT_EQ(Ok("props get " + t)["properties"], json({{"camera", "north"}}));
    Ok("props rm " + t + " --all");
    EXPECT_TRUE(Ok("props get " + t)["properties"].empty());

    const json rec = Ok("record --track " + t +
                        " --synthetic --bitrate 8M --duration 2s --start 2030-01-01T00:00:00Z");
    EXPECT_EQ(rec["chunks"], 50);
    EXPECT_EQ(rec["bytes"], 50 * 40000);
    const json info = Ok("track info " + t)["tracks"][0];
    EXPECT_EQ(info["beginning"], "2030-01-01T00:00:00.000000000Z");
    EXPECT_EQ(info["end"], "2030-01-01T00:00:02.000000000Z");
    // A second recording continues at the track's end.
    EXPECT_EQ(Ok("record --track " + t + " --synthetic --duration 1s")["from"],
              "2030-01-01T00:00:02.000000000Z");

    const int64_t protection =
        Ok("protect " + t +
           " --from 2030-01-01T00:00:00.5Z --to 2030-01-01T00:00:01Z")["protection_id"];
    const json list = Ok("protections")["protections"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["track_id"], id);
    EXPECT_EQ(list[0]["from"], "2030-01-01T00:00:00.500000000Z");
    Ok("unprotect " + std::to_string(protection));
    EXPECT_TRUE(Ok("protections")["protections"].empty());
    EXPECT_TRUE(Ok("workers")["workers"].is_array());

    // A rate below 1 MB/s still shows its digits.
    const std::string recorded =
        Run("record --track " + t + " --synthetic --duration 1s --server " + address_).out;
    EXPECT_TRUE(std::regex_search(recorded, std::regex(R"(\(\d+\.\d\d MB/s\))"))) << recorded;
    Ok("track clear " + t);
    const json cleared = Ok("track info " + t)["tracks"][0];
    EXPECT_EQ(cleared["current_size"], 0);
    EXPECT_EQ(cleared["beginning"], nullptr);
    Ok("track delete " + t);
    EXPECT_TRUE(Ok("track list")["tracks"].empty());
    // People get text, not JSON.
    EXPECT_EQ(Run("space --server " + address_).out.rfind("pool free space: ", 0), 0u);
}

TEST_F(LoopstoreCommandTest, BadInputAndMissingServerExitNonZeroWithAReason) {
    StartServer();
    // A track takes whole pool files (1 MiB here): the answer says so.
    const json created = Ok("track create --size 100");
    EXPECT_EQ(created["size"], 1 << 20);
    EXPECT_EQ(created["requested_size"], 100);
    const std::string t = std::to_string(created["id"].get<int64_t>());
    EXPECT_NE(Run("track create --size 100 --server " + address_).out.find("of 1048576 B"),
              std::string::npos);
    Ok("props set " + t + " camera=north");
    const struct {
        std::string args;
        std::string message;
    } cases[] = {
        {"track info 999", "unknown track 999"},
        {"props get 999", "unknown track 999"},
        {"record --track 999 --synthetic --duration 1s", "unknown track 999"},
        {"protect 1 --from yesterday --to now", "bad time 'yesterday'"},
        {"protect 1 --from now --to -1m", "bad time range"},
        {"track create --size 12Q", "bad size '12Q'"},
        {"record --track 1 --synthetic --chunk-duration 0s", "bad duration '0s'"},
        {"props set 1 novalue", "bad property 'novalue'"},
        {"unprotect 999", "unknown protection 999"},
        {"props rm " + t + " nosuchkey", "has none of the properties 'nosuchkey'"},
    };
    for (const auto& c : cases) {
        const Result r = Run(c.args + " --server " + address_);
        EXPECT_EQ(r.status, 1) << c.args;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << ": " << r.err;
    }
    const Result down = Run("track list --server 127.0.0.1:1");
    EXPECT_EQ(down.status, 1);
    EXPECT_NE(down.err.find("cannot reach the loopstore server at 127.0.0.1:1"), std::string::npos)
        << down.err;
    EXPECT_NE(Run("track frobnicate").status, 0);

    // Scripts get errors, usage errors included, as JSON on stderr.
    const Result unknown = Call("unprotect 999");
    EXPECT_EQ(unknown.status, 1);
    EXPECT_TRUE(unknown.out.empty());
    EXPECT_EQ(json::parse(unknown.err),
              json({{"error", "unknown protection 999"}, {"exit_code", 1}}));
    const Result usage = Call("track list --frobnicate");
    EXPECT_EQ(usage.status, 109);
    EXPECT_EQ(json::parse(usage.err)["exit_code"], 109);
    const Result missing = Call("track info");
    EXPECT_EQ(missing.status, 106);
    EXPECT_EQ(json::parse(missing.err)["exit_code"], 106);
}

TEST_F(LoopstoreCommandTest, AFullyProtectedTrackDoesNotBeginIn1970) {
    StartServer();
    const std::string t = std::to_string(Ok("track create --size 2M")["id"].get<int64_t>());
    // Well under one pool file: a single file holds all the data.
    Ok("record --track " + t +
       " --synthetic --bitrate 1M --duration 1s --start 2030-01-01T00:00:00Z");
    Ok("protect " + t + " --from 2030-01-01T00:00:00Z --to 2030-01-01T00:00:01Z");
    const json info = Ok("track info " + t)["tracks"][0];
    EXPECT_GT(info["current_size"], 0);
    EXPECT_NE(info["beginning"], "1970-01-01T00:00:00.000000000Z");
    const std::string list = Run("track list --server " + address_).out;
    EXPECT_EQ(list.find("1970"), std::string::npos) << list;
}

TEST_F(LoopstoreCommandTest, AMaxAgeOutlivesARestartAfterWhichOldContentIsGone) {
    StartServer();
    const std::string t = std::to_string(Ok("track create --size 4M")["id"].get<int64_t>());
    EXPECT_EQ(Ok("track set " + t + " --max-age 72h")["max_age"], "3d");
    // Four days old (50 chunks of 40 kB: a full 1 MiB file and most of a
    // second), then recent (25 more, the first in that second file).
    using Moreld::Time::TimePoint;
    const TimePoint fourDaysAgo = TimePoint::Now() - TimePoint::FromSeconds(96 * 3600);
    Ok("record --track " + t + " --synthetic --bitrate 8M --duration 2s --start -96h");
    Ok("record --track " + t + " --synthetic --bitrate 8M --duration 1s --start -1m");

    StopServer();
    StartServer();
    // The first file is wholly older than 3 days: gone. The second holds
    // recent chunks too: kept.
    const json info = Ok("track info " + t)["tracks"][0];
    EXPECT_EQ(info["max_age"], "3d");
    const TimePoint oldest = TimePoint::FromString(info["oldest"].get<std::string>());
    EXPECT_GT(oldest, fourDaysAgo + TimePoint::FromSeconds(1));
    EXPECT_LT(info["current_size"].get<uint64_t>(), 2u << 20);  // 75 chunks were 3 MB
    EXPECT_NE(Run("track info " + t + " --server " + address_).out.find("max age:      3d"),
              std::string::npos);

    EXPECT_EQ(Ok("track set " + t + " --max-age off")["max_age"], nullptr);
    EXPECT_EQ(Ok("track info " + t)["tracks"][0]["max_age"], nullptr);
    for (const auto& [args, message] : std::vector<std::pair<std::string, std::string>>{
             {"track set " + t + " --max-age -5h", "must not be negative"},
             {"track set " + t + " --max-age soon", "bad duration 'soon'"},
             {"track set 999 --max-age 1h", "unknown track 999"}}) {
        const Result r = Run(args + " --server " + address_);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_NE(r.err.find(message), std::string::npos) << args << ": " << r.err;
    }
}

TEST_F(LoopstoreCommandTest, AProtectionHoldsWhatIsRecordedAfterItAcrossARestart) {
    StartServer();
    // Six files of about 1 s each at 8 Mbit/s (40 ms chunks of 40000 bytes).
    const int64_t id = Ok("track create --size 6M")["id"];
    const std::string t = std::to_string(id);
    const std::string more = "record --track " + t + " --synthetic --bitrate 8M --duration ";
    Ok(more + "2s --start 2030-01-01T00:00:00Z");
    // Reaches 1.4 s past what is recorded: four files in all are held.
    Ok("protect " + t + " --from 2030-01-01T00:00:01Z --to 2030-01-01T00:00:03.4Z");
    Ok(more + "6s");  // the two free files loop
    StopServer();
    StartServer();
    Ok(more + "6s");  // and loop six times more
    EXPECT_EQ(Ok("track info " + t)["tracks"][0]["end"], "2030-01-01T00:00:14.000000000Z");

    const std::string output = dir_ / "held.bin";
    const json exported = Ok(
        "export --track " + t +
        " --from 2030-01-01T00:00:01Z --to 2030-01-01T00:00:03.4Z --format raw --output " + output);
    EXPECT_EQ(exported["chunks"], 60);
    std::string expected;
    const auto start = Moreld::Time::TimePoint::FromString("2030-01-01T00:00:01Z");
    for (int64_t i = 0; i < 60; ++i)
        expected += SyntheticPayload::Make(
            id, start + Moreld::Time::TimePoint::FromNanoseconds(i * 40'000'000), 40000);
    EXPECT_TRUE(ReadFile(output) == expected) << "the protected range has a hole";
}

TEST_F(LoopstoreCommandTest, ProtectionsShowTheirLabelAndExpiry) {
    StartServer();
    const std::string t = std::to_string(Ok("track create --size 2M")["id"].get<int64_t>());
    Ok("record --track " + t + " --synthetic --bitrate 1M --duration 1s");
    const json made = Ok("protect " + t + " --from -1h --to +1h --label door --expires 30d");
    EXPECT_EQ(made["label"], "door");
    Ok("protect " + t + " --from -1h --to +1h --expires 2200-01-01T00:00:00Z");
    Ok("protect " + t + " --from -1h --to +1h");
    const json list = Ok("protections")["protections"];
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0]["label"], "door");
    EXPECT_EQ(list[0]["expires"], made["expires"]);
    EXPECT_EQ(list[1]["label"], "");
    EXPECT_EQ(list[1]["expires"], "2200-01-01T00:00:00.000000000Z");
    EXPECT_EQ(list[2]["expires"], nullptr);
    const std::string text = Run("protections --server " + address_).out;
    EXPECT_NE(text.find(", label \"door\", expires "), std::string::npos) << text;

    for (const char* past : {"2020-01-01T00:00:00Z", "-1m"}) {
        const Result refused = Call("protect " + t + " --from -1h --to +1h --expires " + past);
        EXPECT_NE(refused.status, 0) << past;
        EXPECT_NE(refused.err.find("is not in the future"), std::string::npos) << refused.err;
    }
    EXPECT_EQ(Ok("protections")["protections"].size(), 3u);
}

TEST_F(LoopstoreCommandTest, VersionAndExitCodesAreInTheHelp) {
    const Result version = Run("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("loopstore ", 0), 0u) << version.out;
    EXPECT_NE(version.out.find('.'), std::string::npos) << version.out;
    const Result help = Run("--help");
    EXPECT_EQ(help.status, 0);
    for (const char* text : {"Exit codes:", "106 missing argument", "109 unknown argument",
                             "{\"error\": \"<reason>\", \"exit_code\": N}"})
        EXPECT_NE(help.out.find(text), std::string::npos) << text;
}

TEST_F(LoopstoreCommandTest, MpegTsFromStdinIsCutOnPacketsAndExportedInOrder) {
    StartServer();
    const int64_t id = Ok("track create --size 4M")["id"];
    // 10 s of stream, a PCR in every packet, 100 packets per second.
    std::string stream;
    for (int i = 0; i < 1000; ++i)
        stream += TsPacket(i, 1'000'000'000 + i * 10'000'000LL);
    const std::string input = dir_ / "in.ts";
    std::ofstream(input, std::ios::binary) << stream;
    const json rec = Run("record --track " + std::to_string(id) +
                             " --input - --chunk-duration 100ms --start 2030-01-01T00:00:00Z"
                             " --json --server " +
                             address_,
                         input)
                         .Json();
    EXPECT_EQ(rec["mpegts"], true);
    EXPECT_EQ(rec["bytes"], stream.size());
    EXPECT_EQ(rec["chunks"], 100);
    EXPECT_EQ(rec["to"], "2030-01-01T00:00:10.000000000Z");
    // Seconds 2 to 5: packets 200 to 499, whole chunks of 10 packets.
    const std::string output = dir_ / "out.ts";
    const json exp = Ok(
        "export --track " + std::to_string(id) +
        " --from 2030-01-01T00:00:02Z --to 2030-01-01T00:00:05Z --format raw --output " + output);
    EXPECT_EQ(exp["chunks"], 30);
    EXPECT_EQ(ReadFile(output), stream.substr(200 * 188, 300 * 188));
}

TEST_F(LoopstoreCommandTest, FsckPassesOnAGoodStoreAndFindsACorruptRecord) {
    StartServer();
    const std::string t = std::to_string(static_cast<int64_t>(Ok("track create --size 3M")["id"]));
    Ok("record --track " + t + " --synthetic --bitrate 8M --duration 3s");
    StopServer();
    const std::string dirs =
        "--tracks " + data_ + "/tracks --db " + data_ + "/db --pool " + data_ + "/pool --json";
    const Result clean = Run("fsck " + dirs);
    ASSERT_EQ(clean.status, 0) << clean.out << clean.err;
    EXPECT_EQ(clean.Json()["clean"], true);
    EXPECT_EQ(clean.Json()["chunks"], 75);

    // One byte inside the first record's payload of a track file.
    std::string victim;
    for (const auto& entry : fs::directory_iterator(data_ + "/tracks/" + t))
        if (victim.empty() || entry.path().string() < victim)
            victim = entry.path().string();
    {
        std::fstream f(victim, std::ios::in | std::ios::out | std::ios::binary);
        f.seekg(16 + 100);
        const char c = static_cast<char>(f.get() ^ 0x5a);
        f.seekp(16 + 100);
        f.put(c);
    }
    const Result bad = Run("fsck --data " + data_);
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("1 problems"), std::string::npos) << bad.out << bad.err;
    EXPECT_NE(bad.out.find("track " + t + ": chunk at "), std::string::npos) << bad.out;

    // A store that is not there cannot be checked.
    const Result missing = Run("fsck --data " + (dir_ / "nothing"));
    EXPECT_EQ(missing.status, 2) << missing.out << missing.err;
    EXPECT_NE(missing.err.find("pool.db does not exist"), std::string::npos) << missing.err;
}

TEST_F(LoopstoreCommandTest, ASecondServeOnTheSameDataFailsWithTheHolder) {
    StartServer();
    const Result second = Run("serve --data " + data_ + " --listen 127.0.0.1:0");
    EXPECT_NE(second.status, 0);
    EXPECT_NE(second.err.find("Store " + data_ + "/db is already open by process " +
                              std::to_string(::getpid())),
              std::string::npos)
        << second.err;
}

TEST_F(LoopstoreCommandTest, LargeAnswersAndRefusedPropertiesReachTheCommandLine) {
    StartServer();
    const std::string t = std::to_string(static_cast<int64_t>(Ok("track create --size 2M")["id"]));
    // Properties larger in all than gRPC's default message size, set
    // through a channel of the test's own (a command line is too short).
    rpc::TrackProperties request;
    request.set_track_id(std::stoll(t));
    for (int i = 0; i < 70; ++i) {
        Protocol::Property* property = request.mutable_properties()->add_properties();
        property->set_key("k" + std::to_string(i));
        property->set_value(std::string(64 * 1024, 'v'));
    }
    auto stub = rpc::TrackStorage::NewStub(
        grpc::CreateChannel(address_, grpc::InsecureChannelCredentials()));
    grpc::ClientContext context;
    rpc::Empty empty;
    ASSERT_TRUE(stub->SetTrackProperties(&context, request, &empty).ok());
    EXPECT_EQ(Ok("props get " + t)["properties"].size(), 70u);
    // What the store refuses, in its own words.
    const Result key = Call("props set " + t + " " + std::string(1025, 'k') + "=v");
    EXPECT_NE(key.status, 0);
    EXPECT_NE(key.err.find("a property key takes 1025 bytes, more than 1024"), std::string::npos)
        << key.err;
    const Result text = Call("props set " + t + " \"name=$(printf '\\377')\"");
    EXPECT_NE(text.status, 0);
    EXPECT_NE(text.err.find("is not valid UTF-8"), std::string::npos) << text.err;
}

TEST_F(LoopstoreCommandTest, ExportSkipsDamagedRecordsAndRecordCountsDroppedBytes) {
    StartServer();
    const std::string t = std::to_string(static_cast<int64_t>(Ok("track create --size 3M")["id"]));
    Ok("record --track " + t +
       " --synthetic --bitrate 8M --duration 3s --start 2030-01-01T00:00:00Z");
    StopServer();
    // One byte inside the second record's payload of the first file.
    std::string victim;
    for (const auto& entry : fs::directory_iterator(data_ + "/tracks/" + t))
        if (victim.empty() || entry.path().string() < victim)
            victim = entry.path().string();
    {
        std::fstream f(victim, std::ios::in | std::ios::out | std::ios::binary);
        const std::streamoff second = 16 + 48 + 4 + 40000 + 100;  // 8 Mbit/s, 40 ms chunks
        f.seekg(second);
        const char c = static_cast<char>(f.get() ^ 0x5a);
        f.seekp(second);
        f.put(c);
    }
    StartServer();
    const std::string output = dir_ / "out.bin";
    const Result exported = Call(
        "export --track " + t +
        " --from 2030-01-01T00:00:00Z --to 2030-01-01T00:00:03Z --format raw --output " + output);
    ASSERT_EQ(exported.status, 0) << exported.err;
    EXPECT_EQ(exported.Json()["chunks"], 74);
    EXPECT_EQ(exported.Json()["damaged"], 1);
    EXPECT_NE(exported.err.find("skipped 1 damaged records (at 2030-01-01T00:00:00.040000000Z)"),
              std::string::npos)
        << exported.err;

    // Bytes that are not MPEG-TS packets are dropped, and said to be.
    std::string noise(100 * 188, '\0');
    for (size_t i = 0; i < noise.size(); ++i)
        noise[i] = static_cast<char>((i * 2654435761u) >> 13);
    const std::string input = dir_ / "noise.ts";
    std::ofstream(input, std::ios::binary) << noise;
    const Result recorded = Call("record --track " + t + " --mpegts --input " + input);
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    EXPECT_EQ(
        recorded.Json()["dropped_bytes"].get<uint64_t>() + recorded.Json()["bytes"].get<uint64_t>(),
        noise.size());
    EXPECT_GT(recorded.Json()["dropped_bytes"].get<uint64_t>(), 0u);
    EXPECT_EQ(recorded.Json()["stored"], recorded.Json()["chunks"]);
    const Result text =
        Run("record --track " + t + " --mpegts --input " + input + " --server " + address_);
    EXPECT_NE(text.out.find("bytes dropped (not MPEG-TS packets)"), std::string::npos) << text.out;
}

// serve on the default layout: makes its pool on first use, answers, and
// stops cleanly on SIGTERM.
// Starts `loopstore <args>` (or another program, found in the PATH, when
// `program` is given) as its own process; stdout and stderr go to the files
// given, else where the test's go.
pid_t Spawn(std::vector<std::string> args, const std::string& out = "", const std::string& err = "",
            const std::string& program = "") {
    args.insert(args.begin(), program.empty() ? LOOPSTORE_BINARY : program);
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    if (!out.empty())
        ::posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                           0644);
    if (!err.empty())
        ::posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                           0644);
    pid_t pid = 0;
    const int failed = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    return failed != 0 ? -1 : pid;
}

// Ends a process with `signal` and returns its raw wait status.
int Reap(pid_t pid, int signal) {
    ::kill(pid, signal);
    int raw = 0;
    ::waitpid(pid, &raw, 0);
    return raw;
}

TEST_F(LoopstoreCommandTest, AServerKilledWhileRecordingComesBackClean) {
    const std::string data = dir_ / "crash";
    address_ = "127.0.0.1:" + std::to_string(FreePort());
    const std::vector<std::string> serve = {"serve",    "--data",           data,
                                            "--listen", address_,           "--pool-files",
                                            "8",        "--pool-file-size", "1M"};
    auto waitUntilAnswering = [&] {
        for (int attempt = 0; attempt < 300; ++attempt) {
            if (Call("space").status == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    };
    pid_t server = Spawn(serve);
    pid_t recorder = -1;
    // Whatever happens, no process outlives the test.
    struct Reaper {
        pid_t& a;
        pid_t& b;
        ~Reaper() {
            for (pid_t pid : {a, b})
                if (pid > 0 && ::kill(pid, 0) == 0)
                    Reap(pid, SIGKILL);
        }
    } reaper{server, recorder};
    ASSERT_GT(server, 0);
    ASSERT_TRUE(waitUntilAnswering());
    ASSERT_EQ(Call("track create --size 4M").status, 0);
    recorder = Spawn({"record", "--track", "1", "--synthetic", "--bitrate", "40M", "--duration",
                      "600s", "--server", address_});
    ASSERT_GT(recorder, 0);
    // Kill the server while chunks are coming in.
    bool recording = false;
    for (int attempt = 0; attempt < 100 && !recording; ++attempt) {
        const Result info = Call("track info 1");
        recording = info.status == 0 && info.Json()["tracks"][0]["current_size"] > 0;
        if (!recording)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_TRUE(recording);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(WIFSIGNALED(Reap(server, SIGKILL)));
    Reap(recorder, SIGKILL);
    recorder = -1;

    // After a start (which repairs the track) and a clean stop, the store checks clean.
    server = Spawn(serve);
    ASSERT_TRUE(waitUntilAnswering());
    const Result exported =
        Call("export --track 1 --from -24h --to +24h --format raw --output " + (dir_ / "out"));
    EXPECT_EQ(exported.status, 0) << exported.err;
    EXPECT_GT(fs::file_size(dir_ / "out"), 0u);
    const int stopped = Reap(server, SIGTERM);
    server = -1;
    EXPECT_TRUE(WIFEXITED(stopped) && WEXITSTATUS(stopped) == 0) << stopped;
    const Result fsck = Run("fsck --data " + data);
    EXPECT_EQ(fsck.status, 0) << fsck.out << fsck.err;
}

TEST_F(LoopstoreCommandTest, ServeMakesItsLayoutAndStopsOnSigterm) {
    const std::string data = dir_ / "served";
    address_ = "127.0.0.1:" + std::to_string(FreePort());
    std::vector<std::string> args = {LOOPSTORE_BINARY,   "serve",  "--data",       data,
                                     "--listen",         address_, "--pool-files", "4",
                                     "--pool-file-size", "1M"};
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
    // The server needs a moment to open its store; ask until it answers.
    Result space;
    for (int attempt = 0; attempt < 300; ++attempt) {
        space = Call("space");
        if (space.status == 0)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(space.status, 0) << space.err;
    if (space.status == 0) {
        EXPECT_EQ(space.Json()["remaining_bytes"], 4 << 20);
    }
    EXPECT_TRUE(fs::exists(data + "/pool/00000004"));
    ::kill(pid, SIGTERM);
    int raw = 0;
    ASSERT_EQ(::waitpid(pid, &raw, 0), pid);
    EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 0) << raw;
}

TEST_F(LoopstoreCommandTest, DemoPasses) {
    const Result r = Run("demo --json");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const json summary = r.Json();
    EXPECT_EQ(summary["passed"], true);
    EXPECT_GT(summary["loops"].get<double>(), 2.0);
    EXPECT_GT(summary["chunks_verified"].get<int64_t>(), 0);
}

// What ffprobe says of a file: its complaints, and per stream the frames it
// decoded and the packets it read.
struct Probe {
    std::string errors;
    json streams;
    double duration = -1;
};

Probe ProbeFile(const std::string& file, const std::string& scratch) {
    const std::string out = scratch + ".json", err = scratch + ".err";
    std::system(("ffprobe -v error -count_frames -count_packets -show_entries "
                 "stream=codec_type,nb_read_frames,nb_read_packets:format=duration -of json " +
                 file + " > " + out + " 2> " + err)
                    .c_str());
    Probe probe;
    probe.errors = ReadFile(err);
    const json answer = json::parse(ReadFile(out), nullptr, false);
    if (answer.is_discarded())
        return probe;
    probe.streams = answer.value("streams", json::array());
    if (answer.contains("format") && answer["format"].contains("duration"))
        probe.duration = std::stod(answer["format"]["duration"].get<std::string>());
    return probe;
}

// A clean clip: no complaint, every packet decodes, a known duration near
// `seconds`.
void ExpectPlays(const std::string& file, const std::string& scratch, double seconds) {
    const Probe probe = ProbeFile(file, scratch);
    EXPECT_EQ(probe.errors, "") << file;
    ASSERT_FALSE(probe.streams.empty()) << file;
    for (const json& stream : probe.streams)
        EXPECT_EQ(stream.value("nb_read_frames", "?"), stream.value("nb_read_packets", "!"))
            << file << ": " << stream.dump();
    EXPECT_EQ(probe.streams[0]["codec_type"], "video") << file;
    EXPECT_NEAR(probe.duration, seconds, 0.3) << file;
}

double Seconds(const json& instant) {
    return static_cast<double>(
               Moreld::Time::TimePoint::FromString(instant.get<std::string>()).ToNanoseconds()) /
           1e9;
}

// Clips cut from a real H.264 + AAC camera stream play: from mid-GOP, across
// the loop of a recycled track, across a hole in the recording; and a range
// with nothing in it leaves no file.
TEST_F(LoopstoreCommandTest, ExportedClipsPlayFromMidGopAcrossTheLoopAndAcrossGaps) {
    LOOPSTORE_REQUIRE_SYNC_POINTS();
    if (!HasProgram("ffmpeg") || !HasProgram("ffprobe"))
        GTEST_SKIP() << "ffmpeg and ffprobe are not installed";
    const std::string input = dir_ / "camera.ts";
    // 20 s at a constant 1 Mbit/s: some 2.9 MB.
    ASSERT_EQ(std::system(("ffmpeg -loglevel error -f lavfi -i testsrc=duration=20:size=320x240:"
                           "rate=25 -f lavfi -i sine=duration=20 -c:v libx264 -g 25 -b:v 1M "
                           "-minrate 1M -maxrate 1M -bufsize 1M -x264-params nal-hrd=cbr "
                           "-c:a aac -f mpegts " +
                           input)
                              .c_str()),
              0);
    StartServer();
    // Two files of 1 MiB: the first one is recycled.
    const std::string looped =
        std::to_string(static_cast<int64_t>(Ok("track create --size 2M")["id"]));
    const std::string record = " --input " + input + " --chunk-duration 200ms --start ";
    Ok("record --track " + looped + record + "2030-01-01T00:00:00Z");
    const json info = Ok("track info " + looped)["tracks"][0];
    const double beginning = Seconds(info["beginning"]), end = Seconds(info["end"]);
    ASSERT_GT(beginning, Seconds("2030-01-01T00:00:00Z")) << "the track did not loop";

    // From 3.5 s into the oldest file to the end: the clip begins at the key
    // frame shown at or before --from (one a second) and holds the chunks of
    // the oldest file and of the recycled one after it.
    const auto from =
        Moreld::Time::TimePoint::FromNanoseconds(static_cast<int64_t>((beginning + 3.5) * 1e9));
    for (const std::string name : {"loop.mp4", "loop.ts"}) {
        const json clip = Ok("export --track " + looped + " --from " + from.ToString() + " --to " +
                             info["end"].get<std::string>() + " --output " + (dir_ / name));
        const double first = Seconds(clip["first"]);
        EXPECT_LE(first, beginning + 3.5) << name;
        EXPECT_GT(first, beginning + 3.5 - 1.05) << name;
        EXPECT_TRUE(clip["gaps"].empty()) << clip.dump();
        ExpectPlays(dir_ / name, dir_ / "probe", Seconds(clip["end"]) - first);
        EXPECT_LT(Seconds(clip["end"]), end + 1) << name;
    }

    // The same stream twice, 40 s apart: the hole is reported and closed up.
    const std::string gapped =
        std::to_string(static_cast<int64_t>(Ok("track create --size 7M")["id"]));
    Ok("record --track " + gapped + record + "2030-01-01T00:00:00Z");
    Ok("record --track " + gapped + record + "2030-01-01T00:01:00Z");
    const Result across = Call("export --track " + gapped +
                               " --from 2030-01-01T00:00:13Z --to 2030-01-01T00:01:05Z --output " +
                               (dir_ / "gap.mp4"));
    ASSERT_EQ(across.status, 0) << across.err;
    const json gaps = across.Json()["gaps"];
    ASSERT_EQ(gaps.size(), 1u) << gaps.dump();
    EXPECT_EQ(gaps[0]["to"], "2030-01-01T00:01:00.000000000Z");
    EXPECT_NEAR(gaps[0]["seconds"].get<double>(),
                60 - (Seconds(gaps[0]["from"]) - Seconds("2030-01-01T00:00:00Z")), 1e-6);
    EXPECT_NE(across.err.find("gap in the recording"), std::string::npos) << across.err;
    // About 7 s before the hole and 5 s after it.
    ExpectPlays(dir_ / "gap.mp4", dir_ / "probe",
                Seconds(across.Json()["end"]) - Seconds(across.Json()["first"]) -
                    gaps[0]["seconds"].get<double>());

    // Nothing recorded there: an error, and no file, not even a temporary one.
    for (const std::string range : {"--from 2031-01-01T00:00:00Z --to 2031-01-01T00:01:00Z",
                                    "--from 2030-01-01T00:00:30Z --to 2030-01-01T00:00:50Z"}) {
        const Result empty =
            Call("export --track " + gapped + " " + range + " --output " + (dir_ / "empty.mp4"));
        EXPECT_NE(empty.status, 0) << range;
        EXPECT_NE(empty.err.find("nothing recorded on track"), std::string::npos) << empty.err;
    }
    const Result unknown = Call("export --track " + gapped +
                                " --from 2030-01-01T00:00:00Z --to 2030-01-01T00:00:05Z --output " +
                                (dir_ / "clip.mkv"));
    EXPECT_NE(unknown.err.find("give --format mp4, ts or raw"), std::string::npos) << unknown.err;
    for (const auto& entry : fs::directory_iterator(dir_.Path()))
        EXPECT_EQ(entry.path().string().find("part"), std::string::npos) << entry.path();
    EXPECT_FALSE(fs::exists(dir_ / "empty.mp4"));
    EXPECT_FALSE(fs::exists(dir_ / "clip.mkv"));

    // Interrupted once the clip is being written: the partial file goes.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<int> sent{0};
    auto& sync = Moreld::Tools::SyncPoint::Instance();
    sync.SetCallback("RangeExporter::Sent", [&sent, released] {
        if (++sent == 60)  // 12 s of stream: more than the demuxer reads to know it
            released.wait();
    });
    const pid_t pid =
        Spawn({"export", "--track", gapped, "--from", "2030-01-01T00:00:05Z", "--to",
               "2030-01-01T00:01:10Z", "--output", dir_ / "stopped.mp4", "--server", address_});
    ASSERT_GT(pid, 0);
    const std::string partial = dir_ / (".stopped.mp4." + std::to_string(pid) + ".part");
    for (int i = 0; i < 6000 && !fs::exists(partial); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));  // waits for the file only
    EXPECT_TRUE(fs::exists(partial));
    const int raw = Reap(pid, SIGINT);
    release.set_value();
    sync.ClearAll();
    EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 128 + SIGINT) << raw;
    EXPECT_FALSE(fs::exists(partial));
    EXPECT_FALSE(fs::exists(dir_ / "stopped.mp4"));
}

// Live input through a pipe is stamped by the wall clock: never ahead of
// now, even when it comes faster than real time. A track that a faster
// recording left ending in the future is refused with the way out, which
// works.
TEST_F(LoopstoreCommandTest, LiveInputIsStampedByTheWallClock) {
    using Moreld::Time::TimePoint;
    StartServer();
    const std::string t = std::to_string(Ok("track create --size 4M")["id"].get<int64_t>());
    std::string stream;
    for (int i = 0; i < 200; ++i)
        stream += TsPacket(i, i * 10'000'000LL);
    const std::string input = dir_ / "in.ts";
    std::ofstream(input, std::ios::binary) << stream;
    const std::string record = "record --track " + t + " --input - --json --server " + address_;
    const TimePoint before = TimePoint::Now();
    const Result live = Piped("cat " + input, record + " --chunk-duration 100ms");
    const TimePoint after = TimePoint::Now();
    ASSERT_EQ(live.status, 0) << live.err;
    EXPECT_EQ(live.Json()["clock"], "wall");
    EXPECT_EQ(live.Json()["chunks"], 20);
    EXPECT_GE(TimePoint::FromString(live.Json()["from"]),
              before - TimePoint::FromMilliseconds(100));
    EXPECT_LE(TimePoint::FromString(live.Json()["to"]), after);
    EXPECT_GT(live.Json()["shortened"], 0);

    // Two seconds of stream clock stored from an hour ahead.
    Ok("record --track " + t + " --synthetic --duration 2s --start +1h");
    const std::string end = Ok("track info " + t)["tracks"][0]["end"];
    const Result refused = Piped("cat " + input, record);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("track " + t + " ends at " + end), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("--clock stream"), std::string::npos) << refused.err;
    const Result stream_clock = Piped("cat " + input, record + " --clock stream");
    ASSERT_EQ(stream_clock.status, 0) << stream_clock.err;
    EXPECT_EQ(stream_clock.Json()["from"], end);
    EXPECT_EQ(stream_clock.Json()["clock"], "stream");
}

// Polls `done` every 100 ms for up to `seconds`: for another process to get
// somewhere.
template <typename Done>
bool WaitFor(Done done, int seconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < until) {
        if (done())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return done();
}

// A camera sending MPEG-TS over UDP, read with --url: the recording goes on
// through a restart of the server (chunks are kept meanwhile and sent
// after, so the track has no gap there) and through a restart of the camera
// (reported as stalled; the pause is a gap in the track), and stops cleanly
// on SIGINT.
TEST_F(LoopstoreCommandTest, UrlRecordingSurvivesServerAndCameraRestarts) {
    using Moreld::Time::TimePoint;
    if (!HasProgram("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed";
    StartServer();
    const std::string listen = address_;
    const std::string t = std::to_string(Ok("track create --size 8M")["id"].get<int64_t>());
    const std::string url = "udp://127.0.0.1:" + std::to_string(FreePort(SOCK_DGRAM));
    const std::vector<std::string> cameraArgs = {"-loglevel",
                                                 "error",
                                                 "-re",
                                                 "-f",
                                                 "lavfi",
                                                 "-i",
                                                 "testsrc=size=160x120:rate=25",
                                                 "-c:v",
                                                 "libx264",
                                                 "-tune",
                                                 "zerolatency",
                                                 "-g",
                                                 "10",
                                                 "-f",
                                                 "mpegts",
                                                 url + "?pkt_size=1316"};
    pid_t camera = Spawn(cameraArgs, "/dev/null", "/dev/null", "ffmpeg");
    const std::string notes = dir_ / "record.err";
    pid_t recorder = Spawn({"record", "--track", t, "--url", url, "--chunk-duration", "200ms",
                            "--stall-timeout", "1s", "--json", "--server", address_},
                           dir_ / "record.out", notes);
    struct Reaper {
        pid_t& a;
        pid_t& b;
        ~Reaper() {
            for (pid_t pid : {a, b})
                if (pid > 0)
                    Reap(pid, SIGKILL);
        }
    } reaper{camera, recorder};
    ASSERT_GT(camera, 0);
    ASSERT_GT(recorder, 0);
    auto noted = [&](const std::string& text) {
        return ReadFile(notes).find(text) != std::string::npos;
    };
    auto endOfTrack = [&] {
        auto storage = rpc::TrackStorage::NewStub(
            grpc::CreateChannel(address_, grpc::InsecureChannelCredentials()));
        grpc::ClientContext context;
        rpc::TrackId track;
        track.set_id(std::stoll(t));
        Protocol::TimePoint end;
        end.set_nanoseconds(-1);
        static_cast<void>(storage->GetEndOfTrack(&context, track, &end));
        return TimePoint::FromNanoseconds(end.nanoseconds());
    };
    ASSERT_TRUE(WaitFor([&] { return endOfTrack() > TimePoint(); }, 30)) << ReadFile(notes);

    // The server stops until the recorder has noticed.
    StopServer();
    const TimePoint serverDown = TimePoint::Now();
    ASSERT_TRUE(WaitFor([&] { return noted("lost the server"); }, 30)) << ReadFile(notes);
    StartServer(listen);
    const TimePoint serverUp = TimePoint::Now();
    ASSERT_TRUE(WaitFor([&] { return noted("is back after"); }, 30)) << ReadFile(notes);

    // The camera dies and comes back after the recorder has noticed.
    ASSERT_TRUE(WaitFor([&] { return endOfTrack() > serverUp; }, 30)) << ReadFile(notes);
    Reap(camera, SIGKILL);
    const TimePoint cameraDown = TimePoint::Now();
    ASSERT_TRUE(WaitFor([&] { return noted("stream stalled"); }, 30)) << ReadFile(notes);
    camera = Spawn(cameraArgs, "/dev/null", "/dev/null", "ffmpeg");
    const TimePoint cameraUp = TimePoint::Now();
    ASSERT_TRUE(WaitFor([&] { return endOfTrack() > cameraUp; }, 30)) << ReadFile(notes);

    const int stopped = Reap(recorder, SIGINT);
    recorder = -1;
    ASSERT_TRUE(WIFEXITED(stopped) && WEXITSTATUS(stopped) == 0) << stopped << ReadFile(notes);
    const json summary = json::parse(ReadFile(dir_ / "record.out"));
    EXPECT_GE(summary["reconnects"], 1);
    EXPECT_EQ(summary["lost_chunks"], 0);
    EXPECT_EQ(summary["stored"], summary["chunks"]);

    // Gaps of more than a second (chunks last up to 0.4 s here) only while
    // the camera was away, and one there.
    auto stub = rpc::TrackReader::NewStub(
        grpc::CreateChannel(address_, grpc::InsecureChannelCredentials()));
    rpc::ExportRequest request;
    request.set_track_id(std::stoll(t));
    request.mutable_from()->set_nanoseconds(0);
    request.mutable_to()->set_nanoseconds(TimePoint::Now().ToNanoseconds());
    grpc::ClientContext context;
    auto chunks = stub->Export(&context, request);
    Protocol::Chunk chunk;
    TimePoint previousEnd = TimePoint::FromNanoseconds(-1);
    int cameraGaps = 0;
    while (chunks->Read(&chunk)) {
        const TimePoint at = TimePoint::FromNanoseconds(chunk.timepoint().nanoseconds());
        EXPECT_GE(at, previousEnd);
        if (previousEnd > TimePoint() && at - previousEnd > TimePoint::FromSeconds(1)) {
            const bool whileCameraAway = previousEnd >= cameraDown - TimePoint::FromSeconds(2) &&
                                         at <= cameraUp + TimePoint::FromSeconds(10);
            EXPECT_TRUE(whileCameraAway) << "gap from " << previousEnd << " to " << at
                                         << "; server away " << serverDown << " .. " << serverUp;
            cameraGaps += whileCameraAway ? 1 : 0;
        }
        previousEnd = at + TimePoint::FromNanoseconds(chunk.duration().nanoseconds());
    }
    ASSERT_TRUE(chunks->Finish().ok());
    EXPECT_EQ(cameraGaps, 1);
}

}  // namespace
}  // namespace loopstore::cli
