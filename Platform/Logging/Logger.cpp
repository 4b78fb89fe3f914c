#include "Platform/Logging/Logger.h"

#include <log4cplus/loglevel.h>

#include <algorithm>

namespace tav::mr::logging {

log4cplus::LogLevel Logger::ToLog4cplus(int level) {
    int step = std::clamp(level / 10, 1, 5);  // 1..5 for TRACE..ERROR
    return (step - 1) * 10000;
}

int Logger::FromLog4cplus(log4cplus::LogLevel level) {
    return std::clamp(level / 10000 + 1, 1, 6) * 10;
}

bool Logger::IsEnabledFor(int level) const { return logger_.isEnabledFor(ToLog4cplus(level)); }

int Logger::GetLevel() const { return FromLog4cplus(logger_.getChainedLogLevel()); }

void Logger::SetLevel(int level) { logger_.setLogLevel(ToLog4cplus(level)); }

void Logger::Log(int level, const std::string& message, const char* file, int line) const {
    logger_.forcedLog(ToLog4cplus(level), message, file, line);
}

}  // namespace tav::mr::logging
