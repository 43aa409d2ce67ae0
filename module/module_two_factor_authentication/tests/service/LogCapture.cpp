#include "LogCapture.h"

#include <Poco/Logger.h>

#include "TwoFactorAuthenticationLog.h"

namespace TfaTest {

namespace {

const char* const kTaskSource = "TwoFactorAuthenticationTask.cpp";

bool IsTaskRecord(const Poco::Message& message, Poco::Message::Priority priority)
{
    return message.getPriority() == priority && message.getSourceFile() != nullptr &&
           std::string(message.getSourceFile()) == kTaskSource && message.getSourceLine() > 0;
}

Poco::Logger& ModuleLogger()
{
    // Through the module's own accessor, so that the agent's logging set-up
    // has run before the channel is replaced.
    Poco::Logger* logger = Engine::TwoFactorAuthentication::GetLoggerPtr();
    return logger != nullptr ? *logger : Poco::Logger::get("two_factor_authentication_module");
}

} // namespace

LogCapture::LogCapture() : channel(new TestSupport::CapturingChannel)
{
    Poco::Logger& logger = ModuleLogger();
    previousChannel = logger.getChannel();
    previousLevel = logger.getLevel();
    logger.setChannel(channel);
    logger.setLevel(Poco::Message::PRIO_DEBUG);
}

LogCapture::~LogCapture()
{
    Poco::Logger& logger = ModuleLogger();
    logger.setChannel(previousChannel);
    logger.setLevel(previousLevel);
}

bool LogCapture::Has(Poco::Message::Priority priority, const std::string& text) const
{
    for (const Poco::Message& message : channel->Messages()) {
        if (message.getText() == text && IsTaskRecord(message, priority)) {
            return true;
        }
    }
    return false;
}

bool LogCapture::HasPrefix(Poco::Message::Priority priority, const std::string& prefix) const
{
    for (const Poco::Message& message : channel->Messages()) {
        if (message.getText().compare(0, prefix.size(), prefix) == 0 && IsTaskRecord(message, priority)) {
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
        all += "  [" + std::to_string(message.getPriority()) + "] " + message.getText() + "\n";
    }
    return all;
}

void LogCapture::Clear()
{
    channel->Clear();
}

} // namespace TfaTest
