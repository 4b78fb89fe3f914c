#include "Platform/Logging/LoggingManager.h"

#include <gtest/gtest.h>

#include <fstream>

#include "Platform/Logging/LogCapture.h"
#include "tests/Support/TempDir.h"

using tav::mr::logging::LogCapture;
using tav::mr::logging::LoggingManager;

namespace {

int built = 0;
int CountBuild() { return ++built; }

}  // namespace

TEST(LoggingManager, CapturesByNameWithLevelAndSource) {
    LogCapture capture("CaptureTest");
    auto logger = LoggingManager::GetLogger("CaptureTest");
    LogCapture other("SomethingElse");
    MR_LOG(logger, 30, "T" << 7 << ": created");
    MR_LOG(logger, 50, "boom");
    auto messages = capture.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, "T7: created");
    EXPECT_EQ(messages[0].level, 30);
    EXPECT_EQ(messages[1].level, 50);
    EXPECT_NE(messages[0].file.find("LoggingManagerTest.cpp"), std::string::npos);
    EXPECT_GT(messages[0].line, 0);
    EXPECT_TRUE(capture.HasExactly("boom"));
    EXPECT_EQ(capture.LevelOf("created"), 30);
    EXPECT_TRUE(other.Messages().empty());
}

TEST(LoggingManager, BuildsMessagesOnlyWhenTheLevelLetsThemThrough) {
    LogCapture capture("LevelTest", 40);
    auto logger = LoggingManager::GetLoggerPtr("LevelTest");
    built = 0;
    MR_LOG(*logger, 30, "detail " << CountBuild());
    EXPECT_EQ(built, 0);
    EXPECT_TRUE(capture.Messages().empty());
    EXPECT_EQ(logger->GetLevel(), 40);
    MR_LOG(*logger, 40, "warn " << CountBuild());
    EXPECT_EQ(built, 1);
    EXPECT_TRUE(capture.HasExactly("warn 1"));
}

TEST(LoggingManager, ReadsAPropertiesFile) {
    loopstore::test::TempDir dir;
    std::string file = dir / "log.properties";
    std::ofstream(file) << "log4cplus.rootLogger=WARN, F\n"
                           "log4cplus.logger.Chatty=TRACE\n"
                           "log4cplus.appender.F=log4cplus::FileAppender\n"
                           "log4cplus.appender.F.File=" << (dir / "out.log") << "\n"
                           "log4cplus.appender.F.layout=log4cplus::PatternLayout\n"
                           "log4cplus.appender.F.layout.ConversionPattern=%p %c %m%n\n";
    LoggingManager::Configure(file);
    EXPECT_EQ(LoggingManager::GetLogger("Chatty").GetLevel(), 10);
    EXPECT_EQ(LoggingManager::GetLogger("Quiet").GetLevel(), 40);
    MR_LOG(LoggingManager::GetLogger("Chatty"), 10, "hello file");
    LoggingManager::ConfigureConsole(40);  // closes the file appender
    std::ifstream in(dir / "out.log");
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "TRACE Chatty hello file");
    EXPECT_THROW(LoggingManager::Configure(dir / "missing.properties"), std::runtime_error);
}
