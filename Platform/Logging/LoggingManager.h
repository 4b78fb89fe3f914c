#pragma once

#include <memory>
#include <sstream>
#include <string>

#include "Platform/Logging/Logger.h"

namespace tav::mr::logging {

// Entry point of logging: hands out named loggers and configures log4cplus.
//
// Until Configure* is called, messages of level 40 and above go to stderr.
// All functions are safe to call from any thread.
class LoggingManager {
public:
    static Logger GetLogger(const std::string& name);
    static std::shared_ptr<Logger> GetLoggerPtr(const std::string& name);

    // Replaces the configuration with a log4cplus properties file. Throws
    // std::runtime_error when the file cannot be read.
    static void Configure(const std::string& propertiesFile);
    // Replaces the configuration with one stderr appender at `level`.
    static void ConfigureConsole(int level);

    // The layout of the console default: time, level, logger, message, source.
    static const char* DefaultPattern();
};

}  // namespace tav::mr::logging

// Logs `message` (anything streamable: MR_LOG(l, 30, "T" << id << ": done"))
// at the numeric `level`, with the caller's file and line. The message is
// built only when the logger lets the level through.
#define MR_LOG(logger, level, message)                                                         \
    do {                                                                                       \
        const auto& mr_log_logger_ = (logger);                                                 \
        if (mr_log_logger_.IsEnabledFor(level)) {                                              \
            std::ostringstream mr_log_stream_;                                                 \
            mr_log_stream_ << message;                                                         \
            mr_log_logger_.Log((level), mr_log_stream_.str(), __FILE__, __LINE__);             \
        }                                                                                      \
    } while (false)
