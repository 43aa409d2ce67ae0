#pragma once

#include <string>

#include <Poco/Message.h>

namespace SDK {
namespace Internal {

/// True when the library's own logger ("sdk", in the agent's common file)
/// admits `priority`; lets callers skip building texts nobody will read.
bool SdkLogEnabled(int priority);

/// Writes one record to the library's logger with the base name of `file`
/// and `line`. Never throws: a failing log channel must not change the
/// caller's result.
void SdkLog(int priority, const std::string& text, const char* file, int line);

} // namespace Internal
} // namespace SDK

#define SDK_LOG(priority, text)                                                \
    do {                                                                       \
        if (SDK::Internal::SdkLogEnabled(priority)) {                          \
            SDK::Internal::SdkLog((priority), (text), __FILE__, __LINE__);     \
        }                                                                      \
    } while (0)

#define SDK_LOG_ERROR(text) SDK_LOG(Poco::Message::PRIO_ERROR, text)
#define SDK_LOG_WARNING(text) SDK_LOG(Poco::Message::PRIO_WARNING, text)
#define SDK_LOG_INFO(text) SDK_LOG(Poco::Message::PRIO_INFORMATION, text)
