#include <gtest/gtest.h>

#include <string>

#include "Host/Server/LoopstoreServer.h"
#include "Host/Server/ServerMain.h"
#include "tests/Host/Server/ServerFixture.h"
#include "tests/Support/TempDir.h"

namespace {

loopstore::host::ServerOptions OtherStoreOn(const loopstore::test::TempDir& dir, int port) {
    loopstore::host::ServerOptions options;
    options.tracksDir = dir / "tracks";
    options.dbDir = dir / "db";
    options.poolDir = dir / "pool";
    options.listenAddress = "127.0.0.1:" + std::to_string(port);
    return options;
}

// gRPC would share the port, and clients would alternate between the two.
TEST(ListenPortTest, SecondServerOnAPortInUseFailsAtOnceAndTheFirstServesOn) {
    loopstore::test::ServerFixture first(2);
    const int port = first.Port();
    loopstore::test::TempDir dir;
    const loopstore::host::ServerOptions options = OtherStoreOn(dir, port);

    loopstore::host::LoopstoreServer second(options);
    try {
        second.Start();
        FAIL() << "a second server started on port " << port;
    } catch (const std::runtime_error& e) {
        const std::string expected = "Cannot listen on 127.0.0.1:" + std::to_string(port) +
                                     " (port " + std::to_string(port) + "): Address already in use";
        EXPECT_EQ(expected, e.what());
    }
    EXPECT_EQ(0, second.Port());
    EXPECT_NE(0, loopstore::host::RunServer(options));

    loopstore::rpc::Bytes bytes;
    EXPECT_TRUE(first.Tracks()
                    .GetRemainingSpace(first.Context().get(), loopstore::rpc::Empty(), &bytes)
                    .ok());
    EXPECT_EQ(2 * static_cast<long>(loopstore::test::ServerFixture::kFileSize), bytes.value());

    // Its store was released: it starts once the port is free.
    first.Stop();
    second.Start();
    EXPECT_EQ(port, second.Port());
}

}  // namespace
