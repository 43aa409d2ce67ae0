#include <cctype>

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include "SDK/LoggerUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using SDK::LoggerUtils;
using TestSupport::ReadWholeFile;

/// The line of `text` that contains `part`, or empty.
std::string LineWith(const std::string& text, const std::string& part)
{
    const std::string::size_type at = text.find(part);
    if (at == std::string::npos) {
        return std::string();
    }
    const std::string::size_type start = text.rfind('\n', at);
    const std::string::size_type begin = start == std::string::npos ? 0 : start + 1;
    return text.substr(begin, text.find('\n', at) - begin);
}

/// True when `line` starts with a local time stamp "YYYY-MM-DD hh:mm:ss.mmm ".
bool StartsWithTimeStamp(const std::string& line)
{
    const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
    if (line.size() < shape.size()) {
        return false;
    }
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == 'd' ? !digit : line[i] != shape[i]) {
            return false;
        }
    }
    return true;
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
        ASSERT_TRUE(first.Ok());
        ASSERT_TRUE(second.Ok());
        ASSERT_EQ(0, LoggerUtils::GetInstance()->Configure(first.File("logs"), "information", false));
    }

    TestSupport::TempDir first;
    TestSupport::TempDir second;
};

TEST_F(LoggerUtilsTest, RecordsCarryTimePriorityLoggerTextAndSource)
{
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("format_module", false);
    ASSERT_NE(nullptr, logger);

    Log(logger, Poco::Message::PRIO_ERROR, "Open sshd config file(/etc/ssh/sshd_config) failed, errno(2).",
        "Task.cpp", 42);
    Log(logger, Poco::Message::PRIO_INFORMATION, "Task(two_factor_authentication_task) init.");

    const std::string text = ReadWholeFile(first.File("logs/agent.log"));
    const std::string located = LineWith(text, "Open sshd config file");
    const std::string plain = LineWith(text, "Task(two_factor_authentication_task)");
    EXPECT_TRUE(StartsWithTimeStamp(located)) << text;
    EXPECT_TRUE(StartsWithTimeStamp(plain)) << text;
    EXPECT_EQ("Error format_module: Open sshd config file(/etc/ssh/sshd_config) failed, errno(2). (Task.cpp:42)",
              located.substr(24));
    EXPECT_EQ("Information format_module: Task(two_factor_authentication_task) init.", plain.substr(24));
}

TEST_F(LoggerUtilsTest, ModulesShareTheCommonFileOrHaveTheirOwn)
{
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* shared = utils->GetModuleLogger("shared_module", false);
    Poco::Logger* own = utils->GetModuleLogger("own_module", true);
    ASSERT_NE(nullptr, shared);
    ASSERT_NE(nullptr, own);
    EXPECT_EQ(shared, utils->GetModuleLogger("shared_module", false));
    EXPECT_EQ(nullptr, utils->GetModuleLogger("", false));

    Log(shared, Poco::Message::PRIO_WARNING, "to the common file");
    Log(own, Poco::Message::PRIO_WARNING, "to its own file");

    const std::string common = ReadWholeFile(first.File("logs/agent.log"));
    const std::string separate = ReadWholeFile(first.File("logs/own_module.log"));
    EXPECT_NE(std::string::npos, common.find("to the common file"));
    EXPECT_EQ(std::string::npos, common.find("to its own file"));
    EXPECT_NE(std::string::npos, separate.find("to its own file"));
}

TEST_F(LoggerUtilsTest, ReconfiguringSwitchesLoggersHandedOutEarlier)
{
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* logger = utils->GetModuleLogger("switched_module", false);
    ASSERT_NE(nullptr, logger);
    EXPECT_FALSE(logger->is(Poco::Message::PRIO_DEBUG));
    Log(logger, Poco::Message::PRIO_INFORMATION, "before the switch");

    ASSERT_EQ(0, utils->Configure(second.File("logs"), "debug", false));
    EXPECT_TRUE(logger->is(Poco::Message::PRIO_DEBUG));
    Log(logger, Poco::Message::PRIO_DEBUG, "after the switch");

    EXPECT_EQ(std::string::npos, ReadWholeFile(first.File("logs/agent.log")).find("after the switch"));
    EXPECT_NE(std::string::npos, ReadWholeFile(second.File("logs/agent.log")).find("after the switch"));

    EXPECT_NE(0, utils->Configure(second.File("logs"), "loud", false));
    EXPECT_TRUE(logger->is(Poco::Message::PRIO_DEBUG)) << "a refused configuration changes nothing";
}

TEST_F(LoggerUtilsTest, ConsoleCopyGoesToStandardError)
{
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("console_module", false);
    ASSERT_NE(nullptr, logger);
    ASSERT_EQ(0, LoggerUtils::GetInstance()->Configure(first.File("logs"), "information", true));

    ::testing::internal::CaptureStderr();
    Log(logger, Poco::Message::PRIO_NOTICE, "seen in the foreground", "Module.cpp", 7);
    const std::string console = ::testing::internal::GetCapturedStderr();

    EXPECT_NE(std::string::npos, console.find("console_module: seen in the foreground (Module.cpp:7)")) << console;
    EXPECT_NE(std::string::npos, ReadWholeFile(first.File("logs/agent.log")).find("seen in the foreground"));
}

} // namespace
