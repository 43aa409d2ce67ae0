#include "AgentLog.h"

#include <cstring>
#include <exception>

#include <Poco/Logger.h>

#include "SDK/LoggerUtils.h"

namespace Agent {

namespace {

Poco::Logger* AgentLogger()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger(kAgentLoggerName, false);
}

} // namespace

bool AgentLogEnabled(int priority)
{
    try {
        Poco::Logger* logger = AgentLogger();
        return logger != nullptr && logger->getLevel() >= priority;
    } catch (const std::exception&) {
        return false;
    }
}

void AgentLogWrite(int priority, const std::string& text, const char* file, int line)
{
    try {
        Poco::Logger* logger = AgentLogger();
        if (logger == nullptr) {
            return;
        }
        // Poco::Message keeps the pointer: point into the static __FILE__ literal.
        const char* slash = std::strrchr(file, '/');
        const char* base = slash == nullptr ? file : slash + 1;
        logger->log(Poco::Message(logger->name(), text, static_cast<Poco::Message::Priority>(priority), base, line));
    } catch (const std::exception&) {
        // Logging never disturbs the agent.
    }
}

} // namespace Agent
