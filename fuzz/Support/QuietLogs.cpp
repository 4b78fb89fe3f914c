#include "fuzz/Support/QuietLogs.h"

#include <google/protobuf/stubs/logging.h>
#include <log4cplus/logger.h>

#include "Platform/Logging/LoggingManager.h"

namespace loopstore::fuzz {

void QuietLogs() {
    // Configuring first installs the logging manager's own set-up, which would
    // otherwise replace this one at the first message.
    tav::mr::logging::LoggingManager::ConfigureConsole(50);
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    google::protobuf::SetLogHandler(nullptr);
}

}  // namespace loopstore::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    loopstore::fuzz::QuietLogs();
    return 0;
}
