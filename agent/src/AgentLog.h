#pragma once

#include <string>

#include <Poco/Message.h>

namespace Agent {

/// Name of the host's own logger; its records go to the agent's common file.
constexpr const char* kAgentLoggerName = "brackmoor-agent";

/// True when the host's logger admits `priority`; lets callers skip building
/// texts nobody will read.
bool AgentLogEnabled(int priority);

/// Writes one record with the base name of `file` and `line`. Never throws:
/// a failing log channel must not change what the agent does.
void AgentLogWrite(int priority, const std::string& text, const char* file, int line);

} // namespace Agent

#define AGENT_LOG(priority, text)                                               \
    do {                                                                        \
        if (::Agent::AgentLogEnabled(priority)) {                               \
            ::Agent::AgentLogWrite((priority), (text), __FILE__, __LINE__);     \
        }                                                                       \
    } while (0)

#define AGENT_LOG_ERROR(text) AGENT_LOG(Poco::Message::PRIO_ERROR, text)
#define AGENT_LOG_WARNING(text) AGENT_LOG(Poco::Message::PRIO_WARNING, text)
#define AGENT_LOG_NOTICE(text) AGENT_LOG(Poco::Message::PRIO_NOTICE, text)
#define AGENT_LOG_INFO(text) AGENT_LOG(Poco::Message::PRIO_INFORMATION, text)
