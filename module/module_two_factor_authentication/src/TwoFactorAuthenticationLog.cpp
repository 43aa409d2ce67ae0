#include "TwoFactorAuthenticationLog.h"

#include <atomic>
#include <cstring>

#include "SDK/LoggerUtils.h"
#include "SDK/PathUtils.h"
#include "TwoFactorAuthenticationNames.h"

namespace Engine {
namespace TwoFactorAuthentication {

namespace {
// No lock: concurrent first calls may both ask the agent, which hands out the
// same logger to each. Atomic only so that the race is a well-defined one.
std::atomic<Poco::Logger*> cachedLogger{nullptr};
} // namespace

Poco::Logger* GetLoggerPtr()
{
    Poco::Logger* logger = cachedLogger.load(std::memory_order_acquire);
    if (logger == nullptr) {
        logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(two_factor_authentication_module, false);
        cachedLogger.store(logger, std::memory_order_release);
    }
    return logger;
}

const char* BaseName(const char* file)
{
    const std::string base = SDK::PathUtils::GetFileNameFromPath(file);
    return file + (std::strlen(file) - base.size());
}

void Write(Poco::Logger& logger, Poco::Message::Priority priority, const char* baseFile, int line,
           const std::string& text)
{
    SDK::LoggerUtils::Log(logger, priority, baseFile, line, text);
}

} // namespace TwoFactorAuthentication
} // namespace Engine
