#include "LogCapture.h"

#include "SDK/LoggerUtils.h"

namespace TfaTest {

// Through the agent's accessor, so that its logging set-up has run before the
// channel is replaced (it never replaces a channel afterwards).
LogCapture::LogCapture()
    : logger(*SDK::LoggerUtils::GetInstance()->GetModuleLogger("two_factor_authentication_module", false)),
      channel(new TestSupport::CapturingChannel),
      previousChannel(logger.getChannel()),
      previousLevel(logger.getLevel())
{
    logger.setChannel(channel);
    logger.setLevel(Poco::Message::PRIO_TRACE);
}

LogCapture::~LogCapture()
{
    logger.setChannel(previousChannel);
    logger.setLevel(previousLevel);
}

bool LogCapture::Has(Poco::Message::Priority priority, const std::string& text, const std::string& file) const
{
    for (const Poco::Message& message : channel->Messages()) {
        if (message.getText() == text && message.getPriority() == priority && message.getSourceFile() != nullptr &&
            message.getSourceFile() == file && message.getSourceLine() > 0) {
            return true;
        }
    }
    return false;
}

size_t LogCapture::Count(const std::string& text) const
{
    size_t count = 0;
    for (const Poco::Message& message : channel->Messages()) {
        count += message.getText() == text ? 1 : 0;
    }
    return count;
}

std::string LogCapture::Dump() const
{
    std::string all;
    for (const Poco::Message& message : channel->Messages()) {
        const char* file = message.getSourceFile();
        all += "  [" + std::to_string(message.getPriority()) + "] " + (file != nullptr ? file : "-") + ": " +
               message.getText() + "\n";
    }
    return all;
}

} // namespace TfaTest
