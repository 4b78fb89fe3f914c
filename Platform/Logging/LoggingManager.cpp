#include "Platform/Logging/LoggingManager.h"

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/hierarchy.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>

#include <fstream>
#include <mutex>
#include <stdexcept>

namespace tav::mr::logging {

namespace {

std::once_flag initOnce;

void InstallConsole(int level) {
    log4cplus::Logger::getDefaultHierarchy().resetConfiguration();
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
    console->setLayout(std::make_unique<log4cplus::PatternLayout>(LoggingManager::DefaultPattern()));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.addAppender(console);
    root.setLogLevel(Logger::ToLog4cplus(level));
}

// log4cplus needs one Initializer alive while it is used; it lives as long as
// the process.
void EnsureInitialized() {
    std::call_once(initOnce, [] {
        static log4cplus::Initializer initializer;
        InstallConsole(kWarning);
    });
}

}  // namespace

const char* LoggingManager::DefaultPattern() {
    return "%D{%Y-%m-%d %H:%M:%S.%q} %-5p [%c] %m (%b:%L)%n";
}

Logger LoggingManager::GetLogger(const std::string& name) {
    EnsureInitialized();
    return Logger(log4cplus::Logger::getInstance(name));
}

std::shared_ptr<Logger> LoggingManager::GetLoggerPtr(const std::string& name) {
    return std::make_shared<Logger>(GetLogger(name));
}

void LoggingManager::Configure(const std::string& propertiesFile) {
    EnsureInitialized();
    std::ifstream probe(propertiesFile);
    if (!probe) {
        throw std::runtime_error("Cannot read logging configuration " + propertiesFile);
    }
    log4cplus::Logger::getDefaultHierarchy().resetConfiguration();
    log4cplus::PropertyConfigurator::doConfigure(propertiesFile);
}

void LoggingManager::ConfigureConsole(int level) {
    EnsureInitialized();
    InstallConsole(level);
}

}  // namespace tav::mr::logging
