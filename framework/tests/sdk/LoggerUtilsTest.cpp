#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AsyncLogChannel.h"
#include "SDK/LoggerUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using SDK::LoggerUtils;
using TestSupport::ReadWholeFile;
using testing::HasSubstr;
using testing::Not;

TEST(LoggerUtilsTest, RecordsReachTheirFileWithTimePriorityAndSourceAndFollowAReconfiguration)
{
    TestSupport::TempDir first, second;
    ASSERT_TRUE(first.Ok() && second.Ok());
    LoggerUtils* utils = LoggerUtils::GetInstance();
    ASSERT_EQ(0, utils->Configure(first.File("logs"), "information", false));
    Poco::Logger* shared = utils->GetModuleLogger("format_module", false);
    ASSERT_NE(nullptr, shared);
    EXPECT_EQ(shared, utils->GetModuleLogger("format_module", false));
    EXPECT_EQ(nullptr, utils->GetModuleLogger("", false));

    shared->log(Poco::Message(shared->name(), "Open sshd config file(/etc/ssh/sshd_config) failed, errno(2).",
                              Poco::Message::PRIO_ERROR, "Task.cpp", 42));
    shared->information("Task(two_factor_authentication_task) init.");
    utils->Flush();
    // Local time stamp, priority, logger, text, and the source when known.
    const std::regex expected(
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Error format_module: Open sshd config "
        "file\\(/etc/ssh/sshd_config\\) failed, errno\\(2\\)\\. \\(Task\\.cpp:42\\)\n"
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} Information format_module: "
        "Task\\(two_factor_authentication_task\\) init\\.\n");
    const std::string common = ReadWholeFile(first.File("logs/agent.log"));
    EXPECT_TRUE(std::regex_match(common, expected)) << common;

    // Loggers handed out earlier follow a new configuration.
    ASSERT_EQ(0, utils->Configure(second.File("logs"), "debug", false));
    EXPECT_TRUE(shared->is(Poco::Message::PRIO_DEBUG));
    shared->debug("after the switch");
    utils->Flush();
    EXPECT_THAT(ReadWholeFile(first.File("logs/agent.log")), Not(HasSubstr("after the switch")));
    EXPECT_THAT(ReadWholeFile(second.File("logs/agent.log")), HasSubstr("after the switch"));
    EXPECT_NE(0, utils->Configure(second.File("logs"), "loud", false));
    EXPECT_TRUE(shared->is(Poco::Message::PRIO_DEBUG)) << "a refused configuration changes nothing";
}

TEST(LoggerUtilsTest, NoRecordIsLostOrReorderedThroughAFullBufferAndEveryRecordIsWrittenOnClose)
{
    TestSupport::TempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string path = dir.File("burst.log");
    const int threads = 4;
    const int perThread = 5000;  // more than the buffer holds: callers wait for the writer
    {
        SDK::AsyncLogChannel::Ptr channel(new SDK::AsyncLogChannel(path, false));
        std::vector<std::thread> loggers;
        for (int t = 0; t < threads; ++t) {
            loggers.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    channel->log(Poco::Message("m", "t" + std::to_string(t) + " " + std::to_string(i),
                                               Poco::Message::PRIO_NOTICE));
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

TEST(LoggerUtilsTest, FullFileIsRotatedKeepingTheNewestArchives)
{
    TestSupport::TempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string path = dir.File("rotating.log");
    SDK::AsyncLogChannel::Ptr channel(new SDK::AsyncLogChannel(path, false, 1000, 2));
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 10; ++i) {
            channel->log(Poco::Message("m", "round " + std::to_string(round) + std::string(100, '.'),
                                       Poco::Message::PRIO_ERROR));
        }
        channel->flush();  // one batch a round: each fills the file past 1000 bytes
    }
    channel->close();
    EXPECT_EQ(ReadWholeFile(path), "");
    EXPECT_THAT(ReadWholeFile(path + ".0"), HasSubstr("round 3"));
    EXPECT_THAT(ReadWholeFile(path + ".1"), HasSubstr("round 2"));
    EXPECT_FALSE(std::ifstream(path + ".2").good()) << "only two archives are kept";
}

} // namespace
