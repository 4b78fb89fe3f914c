#include "tests/Storage/Server/Factories/PowerCutHarness.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <utility>

namespace loopstore::test {

PowerCutHarness::PowerCutHarness(std::string workDir)
    : journal_(workDir + "/undo.journal"), trash_(workDir + "/trash") {
    std::filesystem::create_directories(trash_);
}

bool PowerCutHarness::Run(const std::function<void(FaultInjectionEnv&)>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        int code = 0;
        try {
            FaultInjectionEnv env(journal_, trash_);
            ScopedEnv scoped(&env);
            body(env);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child failed: %s\n", e.what());
            code = 1;
        }
        ::_exit(code);  // no atexit handlers, no test framework teardown
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
        return true;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return false;
}

std::string PowerCutHarness::Cut(CutMode mode, uint64_t seed) {
    return SimulatePowerCut(journal_, trash_, mode, seed);
}

void PowerCutHarness::Forget() {
    std::error_code ignored;
    std::filesystem::remove(journal_, ignored);
    std::filesystem::remove_all(trash_, ignored);
    std::filesystem::create_directories(trash_, ignored);
}

std::string TrackPayload(long track, int64_t tpNs, size_t size) {
    std::string payload(size, '\0');
    uint64_t x = static_cast<uint64_t>(tpNs) ^ (static_cast<uint64_t>(track) << 48);
    for (size_t i = 0; i < size; ++i) {
        x = x * 6364136223846793005ULL + 1442695040888963407ULL;
        payload[i] = static_cast<char>(x >> 56);
    }
    return payload;
}

Protocol::Chunk TrackChunk(long track, int64_t tpNs, int64_t durationNs, size_t size) {
    Protocol::Chunk chunk;
    chunk.mutable_timepoint()->set_nanoseconds(tpNs);
    chunk.mutable_duration()->set_nanoseconds(durationNs);
    chunk.set_data(TrackPayload(track, tpNs, size));
    return chunk;
}

}  // namespace loopstore::test
