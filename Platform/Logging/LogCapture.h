#pragma once

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

#include <mutex>
#include <string>
#include <vector>

namespace tav::mr::logging {

// One message as a logger emitted it.
struct CapturedMessage {
    std::string logger;
    int level = 0;  // numeric: 10..50
    std::string text;
    std::string file;
    int line = 0;
};

// Records what one named logger (and its children) emits, for tests and
// diagnostics: many behaviours are only visible as log lines.
//
// While alive, the logger's level is lowered to `level` (10 by default, so
// that everything is captured) and restored on destruction. Messages are
// still passed on to the usual appenders. Thread-safe.
class LogCapture {
public:
    explicit LogCapture(const std::string& loggerName, int level = 10);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<CapturedMessage> Messages() const;
    // Texts only, in order.
    std::vector<std::string> Texts() const;
    // Number of messages whose text contains `fragment`.
    size_t Count(const std::string& fragment) const;
    bool Contains(const std::string& fragment) const { return Count(fragment) > 0; }
    // True when some message has exactly this text.
    bool HasExactly(const std::string& text) const;
    // The level of the first message containing `fragment`, or 0.
    int LevelOf(const std::string& fragment) const;
    void Clear();

private:
    class Sink;
    log4cplus::Logger logger_;
    log4cplus::LogLevel previousLevel_;
    log4cplus::SharedAppenderPtr sink_;
    Sink* sinkRaw_;  // owned through sink_
};

}  // namespace tav::mr::logging
