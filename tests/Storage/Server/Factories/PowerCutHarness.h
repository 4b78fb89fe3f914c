#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Platform/Protocol/Protocol.pb.h"
#include "tests/Support/FaultInjectionEnv.h"
#include "tests/Support/UndoJournal.h"

namespace loopstore::test {

// Runs store code in a child process over a FaultInjectionEnv, lets it die
// (killed at a chosen effect, or by a sync point), then cuts the power on
// what it left: the parent then finds the store as a machine would after a
// power failure at that moment.
//
// The journal and trash live in `workDir`, on the store's file system.
class PowerCutHarness {
  public:
    explicit PowerCutHarness(std::string workDir);

    // Forks; the child installs a FaultInjectionEnv, runs `body` and exits
    // with 0 when it returns (1 when it throws). Returns true when the child
    // was killed (SIGKILL), false when it exited with 0; fails the test
    // otherwise.
    bool Run(const std::function<void(FaultInjectionEnv&)>& body);
    // Undoes what the cut loses; a no-op summary after a clean exit is
    // harmless. Returns the summary.
    std::string Cut(CutMode mode, uint64_t seed = 1);
    // Forgets what the last child did (a kill without a cut).
    void Forget();

  private:
    std::string journal_;
    std::string trash_;
};

// A chunk of `track` at `tpNs` whose bytes depend only on (track, tpNs,
// size), so a reader can tell any wrong byte.
Protocol::Chunk TrackChunk(long track, int64_t tpNs, int64_t durationNs, size_t size);
std::string TrackPayload(long track, int64_t tpNs, size_t size);

}  // namespace loopstore::test
