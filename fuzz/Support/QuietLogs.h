#pragma once

namespace loopstore::fuzz {

// Turns every log message off, the project's and protobuf's: the code under
// test logs each input it refuses, which would flood the fuzzer's output and
// slow it down. Targets that link this unit get it as their
// LLVMFuzzerInitialize.
void QuietLogs();

}  // namespace loopstore::fuzz
