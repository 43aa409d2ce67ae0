#include <regex>

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include "SDK/LoggerUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using SDK::LoggerUtils;
using TestSupport::ReadWholeFile;

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

void Log(Poco::Logger* logger, Poco::Message::Priority priority, const std::string& text, const char* file = nullptr,
         int line = 0)
{
    logger->log(Poco::Message(logger->name(), text, priority, file, line));
}

class LoggerUtilsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(first.Ok() && second.Ok());
        ASSERT_EQ(0, LoggerUtils::GetInstance()->Configure(first.File("logs"), "information", false));
    }

    TestSupport::TempDir first;
    TestSupport::TempDir second;
};

TEST_F(LoggerUtilsTest, RecordsGoToTheCommonFileOrTheModulesOwnWithTimePriorityAndSource)
{
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* shared = utils->GetModuleLogger("format_module", false);
    Poco::Logger* own = utils->GetModuleLogger("own_module", true);
    ASSERT_NE(nullptr, shared);
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(shared, utils->GetModuleLogger("format_module", false));
    EXPECT_EQ(nullptr, utils->GetModuleLogger("", false));

    Log(shared, Poco::Message::PRIO_ERROR, "Open sshd config file(/etc/ssh/sshd_config) failed, errno(2).",
        "Task.cpp", 42);
    Log(shared, Poco::Message::PRIO_INFORMATION, "Task(two_factor_authentication_task) init.");
    Log(own, Poco::Message::PRIO_WARNING, "to its own file");

    // Local time stamp, priority, logger, text, and the source when known.
    const std::regex expected(
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Error format_module: Open sshd config "
        "file\\(/etc/ssh/sshd_config\\) failed, errno\\(2\\)\\. \\(Task\\.cpp:42\\)\n"
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Information format_module: "
        "Task\\(two_factor_authentication_task\\) init\\.\n");
    const std::string common = ReadWholeFile(first.File("logs/agent.log"));
    EXPECT_TRUE(std::regex_match(common, expected)) << common;
    EXPECT_TRUE(Contains(ReadWholeFile(first.File("logs/own_module.log")), "to its own file"));
}

TEST_F(LoggerUtilsTest, ReconfiguringSwitchesLoggersHandedOutEarlier)
{
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* logger = utils->GetModuleLogger("switched_module", false);
    ASSERT_NE(nullptr, logger);
    EXPECT_FALSE(logger->is(Poco::Message::PRIO_DEBUG));

    ASSERT_EQ(0, utils->Configure(second.File("logs"), "debug", false));
    EXPECT_TRUE(logger->is(Poco::Message::PRIO_DEBUG));
    Log(logger, Poco::Message::PRIO_DEBUG, "after the switch");
    EXPECT_FALSE(Contains(ReadWholeFile(first.File("logs/agent.log")), "after the switch"));
    EXPECT_TRUE(Contains(ReadWholeFile(second.File("logs/agent.log")), "after the switch"));

    EXPECT_NE(0, utils->Configure(second.File("logs"), "loud", false));
    EXPECT_TRUE(logger->is(Poco::Message::PRIO_DEBUG)) << "a refused configuration changes nothing";
}

} // namespace
