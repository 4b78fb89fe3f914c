#pragma once

#include <log4cplus/logger.h>

#include <string>

namespace tav::mr::logging {

// The numeric levels of the system, from routine detail to errors.
enum Level : int {
    kDetail = 10,   // routine detail
    kDebug = 20,    // detail
    kInfo = 30,     // normal events
    kWarning = 40,  // anomalies, slow paths
    kError = 50,    // errors, usually followed by a throw
};

// A named logger: a cheap handle to a log4cplus logger. Copyable; safe to use
// from any thread. Numeric levels map onto log4cplus as 10 TRACE, 20 DEBUG,
// 30 INFO, 40 WARN, 50 ERROR (values in between round down).
class Logger {
public:
    explicit Logger(log4cplus::Logger logger) : logger_(std::move(logger)) {}

    // True when a message of `level` would be emitted; ask before building one
    // (the MR_LOG macro does).
    bool IsEnabledFor(int level) const;
    // The effective numeric level (inherited from the parent when unset).
    int GetLevel() const;
    void SetLevel(int level);
    std::string GetName() const { return logger_.getName(); }
    const log4cplus::Logger& Native() const { return logger_; }

    // Emits `message` with its source position, whatever the level says.
    void Log(int level, const std::string& message, const char* file, int line) const;

    static log4cplus::LogLevel ToLog4cplus(int level);
    static int FromLog4cplus(log4cplus::LogLevel level);

private:
    log4cplus::Logger logger_;
};

}  // namespace tav::mr::logging
