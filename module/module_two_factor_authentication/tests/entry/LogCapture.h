#pragma once

#include <string>

#include <Poco/Logger.h>

#include "SDK/LoggerUtils.h"
#include "TestSupport/CapturingChannel.h"

/// Captures the module logger's records at every level for one test.
class LogCapture {
public:
    LogCapture()
        : logger(SDK::LoggerUtils::GetInstance()->GetModuleLogger("two_factor_authentication_module", false)),
          channel(new TestSupport::CapturingChannel)
    {
        logger->setChannel(channel);
        logger->setLevel(Poco::Message::PRIO_TRACE);
    }

    /// The record whose text is exactly `text`; fails the test when absent.
    Poco::Message Find(const std::string& text) const
    {
        for (const Poco::Message& message : channel->Messages()) {
            if (message.getText() == text) {
                return message;
            }
        }
        ADD_FAILURE() << "no log record \"" << text << "\"";
        return Poco::Message();
    }

    /// Checks text, priority and source file of one record.
    void Expect(const std::string& text, Poco::Message::Priority priority, const std::string& file) const
    {
        const Poco::Message message = Find(text);
        if (message.getText() != text) {
            return;
        }
        EXPECT_EQ(message.getPriority(), priority) << text;
        ASSERT_NE(message.getSourceFile(), nullptr) << text;
        EXPECT_STREQ(message.getSourceFile(), file.c_str()) << text;
        EXPECT_GT(message.getSourceLine(), 0) << text;
    }

    Poco::Logger* logger;
    TestSupport::CapturingChannel::Ptr channel;
};
