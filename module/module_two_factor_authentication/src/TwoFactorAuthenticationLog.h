#pragma once

#include <exception>
#include <string>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>


namespace Engine {
namespace TwoFactorAuthentication {

/// The module's logger, asked of the agent on first use and cached; null when
/// the agent has none (then asked again on the next call).
Poco::Logger* GetLoggerPtr();

/// The base name of the source file `file` (a __FILE__ literal), as a
/// pointer into the literal itself: records keep it without a copy.
const char* BaseName(const char* file);

/// Writes one record of `logger` with the source's base name and line.
void Write(Poco::Logger& logger, Poco::Message::Priority priority, const char* baseFile, int line,
           const std::string& text);

/// Formats and writes one record. Exceptions of the formatting or the
/// channel are swallowed: a failing logger never changes what the module does.
template <typename... Args>
void Emit(Poco::Logger& logger, Poco::Message::Priority priority, const char* baseFile, int line,
          const std::string& format, Args... args)
{
    try {
        if constexpr (sizeof...(Args) == 0) {
            Write(logger, priority, baseFile, line, format);
        } else {
            Write(logger, priority, baseFile, line, Poco::format(format, args...));
        }
    } catch (const std::exception&) {
        // Logging must never disturb the caller.
    }
}

} // namespace TwoFactorAuthentication
} // namespace Engine

/// Writes a record when the module logger exists and its level admits `priority`;
/// the arguments are evaluated only then. Each call site finds its file's
/// base name once.
#define TFA_LOG(priority, ...)                                                                      \
    do {                                                                                            \
        Poco::Logger* tfaLogger_ = ::Engine::TwoFactorAuthentication::GetLoggerPtr();               \
        if (tfaLogger_ != nullptr && tfaLogger_->getLevel() >= (priority)) {                        \
            static const char* const tfaFile_ = ::Engine::TwoFactorAuthentication::BaseName(__FILE__); \
            ::Engine::TwoFactorAuthentication::Emit(*tfaLogger_, (priority), tfaFile_, __LINE__,    \
                                                    __VA_ARGS__);                                   \
        }                                                                                           \
    } while (0)

#define TFA_LOG_ERROR(...) TFA_LOG(Poco::Message::PRIO_ERROR, __VA_ARGS__)
#define TFA_LOG_WARNING(...) TFA_LOG(Poco::Message::PRIO_WARNING, __VA_ARGS__)
#define TFA_LOG_INFO(...) TFA_LOG(Poco::Message::PRIO_INFORMATION, __VA_ARGS__)
#define TFA_LOG_DEBUG(...) TFA_LOG(Poco::Message::PRIO_DEBUG, __VA_ARGS__)
