#pragma once

#include <cstring>
#include <exception>
#include <string>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "SDK/PathUtils.h"

namespace Engine {
namespace TwoFactorAuthentication {

/// The module's logger, asked of the agent on first use and cached; null when
/// the agent has none (then asked again on the next call).
Poco::Logger* GetLoggerPtr();

/// Formats and writes one record with the source file's base name and line.
/// Exceptions of the formatting or the channel are swallowed: a failing
/// logger never changes what the module does.
template <typename... Args>
void Emit(Poco::Logger& logger, Poco::Message::Priority priority, const char* file, int line,
          const std::string& format, Args... args)
{
    try {
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = format;
        } else {
            text = Poco::format(format, args...);
        }
        // Poco::Message keeps a pointer to the file name: point into the
        // static __FILE__ literal rather than at a temporary string.
        const std::string base = SDK::PathUtils::GetFileNameFromPath(file);
        const char* baseInLiteral = file + (std::strlen(file) - base.size());
        Poco::Message message(logger.name(), text, priority, baseInLiteral, line);
        logger.log(message);
    } catch (const std::exception&) {
        // Logging must never disturb the caller.
    }
}

} // namespace TwoFactorAuthentication
} // namespace Engine

/// Writes a record when the module logger exists and its level admits `priority`;
/// the arguments are evaluated only then.
#define TFA_LOG(priority, ...)                                                                      \
    do {                                                                                            \
        Poco::Logger* tfaLogger_ = ::Engine::TwoFactorAuthentication::GetLoggerPtr();               \
        if (tfaLogger_ != nullptr && tfaLogger_->getLevel() >= (priority)) {                        \
            ::Engine::TwoFactorAuthentication::Emit(*tfaLogger_, (priority), __FILE__, __LINE__,   \
                                                    __VA_ARGS__);                                   \
        }                                                                                           \
    } while (0)

#define TFA_LOG_ERROR(...) TFA_LOG(Poco::Message::PRIO_ERROR, __VA_ARGS__)
#define TFA_LOG_WARNING(...) TFA_LOG(Poco::Message::PRIO_WARNING, __VA_ARGS__)
#define TFA_LOG_INFO(...) TFA_LOG(Poco::Message::PRIO_INFORMATION, __VA_ARGS__)
#define TFA_LOG_DEBUG(...) TFA_LOG(Poco::Message::PRIO_DEBUG, __VA_ARGS__)
