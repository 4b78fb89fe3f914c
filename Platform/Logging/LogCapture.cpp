#include "Platform/Logging/LogCapture.h"

#include <log4cplus/spi/loggingevent.h>

#include "Platform/Logging/Logger.h"
#include "Platform/Logging/LoggingManager.h"
#include "Platform/Tools/Mutex.h"
#include "Platform/Tools/MutexLock.h"

namespace tav::mr::logging {

class LogCapture::Sink : public log4cplus::Appender {
  public:
    ~Sink() override { destructorImpl(); }
    void close() override {}

    std::vector<CapturedMessage> Messages() const {
        Moreld::Tools::MutexLock lock(mutex_);
        return messages_;
    }
    void Clear() {
        Moreld::Tools::MutexLock lock(mutex_);
        messages_.clear();
    }

  protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        CapturedMessage m{event.getLoggerName(), Logger::FromLog4cplus(event.getLogLevel()),
                          event.getMessage(), event.getFile(), event.getLine()};
        Moreld::Tools::MutexLock lock(mutex_);
        messages_.push_back(std::move(m));
    }

  private:
    mutable Moreld::Tools::Mutex mutex_;
    std::vector<CapturedMessage> messages_ GUARDED_BY(mutex_);
};

LogCapture::LogCapture(const std::string& loggerName, int level)
    : logger_(loggerName.empty() ? LoggingManager::GetLogger("").Native().getRoot()
                                 : LoggingManager::GetLogger(loggerName).Native()),
      previousLevel_(logger_.getLogLevel()),
      sinkRaw_(new Sink) {
    sink_ = log4cplus::SharedAppenderPtr(sinkRaw_);
    logger_.addAppender(sink_);
    logger_.setLogLevel(Logger::ToLog4cplus(level));
}

LogCapture::~LogCapture() {
    logger_.removeAppender(sink_);
    logger_.setLogLevel(previousLevel_);
}

std::vector<CapturedMessage> LogCapture::Messages() const {
    return sinkRaw_->Messages();
}

std::vector<std::string> LogCapture::Texts() const {
    std::vector<std::string> texts;
    for (auto& m : Messages())
        texts.push_back(m.text);
    return texts;
}

size_t LogCapture::Count(const std::string& fragment) const {
    size_t n = 0;
    for (auto& m : Messages())
        n += m.text.find(fragment) != std::string::npos;
    return n;
}

bool LogCapture::HasExactly(const std::string& text) const {
    for (auto& m : Messages()) {
        if (m.text == text)
            return true;
    }
    return false;
}

int LogCapture::LevelOf(const std::string& fragment) const {
    for (auto& m : Messages()) {
        if (m.text.find(fragment) != std::string::npos)
            return m.level;
    }
    return 0;
}

void LogCapture::Clear() {
    sinkRaw_->Clear();
}

}  // namespace tav::mr::logging
