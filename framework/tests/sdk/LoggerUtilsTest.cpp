#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include "AsyncLogChannel.h"
#include "SDK/LoggerUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using SDK::LoggerUtils;
using TestSupport::ReadWholeFile;

bool Contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

void Log(Poco::Channel& channel, Poco::Message::Priority priority, const std::string& text,
         const char* file = nullptr, int line = 0)
{
    channel.log(Poco::Message("m", text, priority, file, line));
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

TEST_F(LoggerUtilsTest, RecordsReachTheirFileWithTimePriorityAndSourceAndFollowAReconfiguration)
{
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* shared = utils->GetModuleLogger("format_module", false);
    Poco::Logger* own = utils->GetModuleLogger("own_module", true);
    ASSERT_TRUE(shared != nullptr && own != nullptr);
    EXPECT_EQ(shared, utils->GetModuleLogger("format_module", false));
    EXPECT_EQ(nullptr, utils->GetModuleLogger("", false));

    shared->log(Poco::Message(shared->name(), "Open sshd config file(/etc/ssh/sshd_config) failed, errno(2).",
                              Poco::Message::PRIO_ERROR, "Task.cpp", 42));
    shared->information("Task(two_factor_authentication_task) init.");
    own->warning("to its own file");
    utils->Flush();
    // Local time stamp, priority, logger, text, and the source when known.
    const std::regex expected(
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Error format_module: Open sshd config "
        "file\\(/etc/ssh/sshd_config\\) failed, errno\\(2\\)\\. \\(Task\\.cpp:42\\)\n"
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Information format_module: "
        "Task\\(two_factor_authentication_task\\) init\\.\n");
    const std::string common = ReadWholeFile(first.File("logs/agent.log"));
    EXPECT_TRUE(std::regex_match(common, expected)) << common;
    EXPECT_TRUE(Contains(ReadWholeFile(first.File("logs/own_module.log")), "to its own file"));

    // Loggers handed out earlier follow a new configuration.
    ASSERT_EQ(0, utils->Configure(second.File("logs"), "debug", false));
    EXPECT_TRUE(shared->is(Poco::Message::PRIO_DEBUG));
    shared->debug("after the switch");
    utils->Flush();
    EXPECT_FALSE(Contains(ReadWholeFile(first.File("logs/agent.log")), "after the switch"));
    EXPECT_TRUE(Contains(ReadWholeFile(second.File("logs/agent.log")), "after the switch"));
    EXPECT_NE(0, utils->Configure(second.File("logs"), "loud", false));
    EXPECT_TRUE(shared->is(Poco::Message::PRIO_DEBUG)) << "a refused configuration changes nothing";
}

TEST_F(LoggerUtilsTest, NoRecordIsLostOrReorderedThroughAFullBufferAndEveryRecordIsWrittenOnClose)
{
    const std::string path = second.File("burst.log");
    const int threads = 4;
    const int perThread = 5000;  // more than the buffer holds: callers wait for the writer
    {
        SDK::AsyncLogChannel::Ptr channel(new SDK::AsyncLogChannel(path, false));
        std::vector<std::thread> loggers;
        for (int t = 0; t < threads; ++t) {
            loggers.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    Log(*channel, Poco::Message::PRIO_NOTICE, "t" + std::to_string(t) + " " + std::to_string(i));
                }
            });
        }
        for (std::thread& logger : loggers) {
            logger.join();
        }
        channel->close();
    }
    std::istringstream lines(ReadWholeFile(path));
    std::vector<int> next(threads, 0);
    int total = 0;
    const std::regex record("Notice m: t(\\d) (\\d+)$");
    for (std::string line; std::getline(lines, line); ++total) {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(line, match, record)) << line;
        const int t = std::stoi(match[1]);
        ASSERT_EQ(next[t]++, std::stoi(match[2])) << "out of order: " << line;
    }
    EXPECT_EQ(threads * perThread, total);
}

TEST_F(LoggerUtilsTest, FullFileIsRotatedKeepingTheNewestArchives)
{
    const std::string path = second.File("rotating.log");
    SDK::AsyncLogChannel::Ptr channel(new SDK::AsyncLogChannel(path, false, 1000, 2));
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 10; ++i) {
            Log(*channel, Poco::Message::PRIO_ERROR, "round " + std::to_string(round) + std::string(100, '.'));
        }
        channel->flush();  // one batch a round: each fills the file past 1000 bytes
    }
    channel->close();
    EXPECT_EQ(ReadWholeFile(path), "");
    EXPECT_TRUE(Contains(ReadWholeFile(path + ".0"), "round 3"));
    EXPECT_TRUE(Contains(ReadWholeFile(path + ".1"), "round 2"));
    EXPECT_FALSE(std::ifstream(path + ".2").good()) << "only two archives are kept";
}

} // namespace
