#include "TwoFactorAuthenticationLog.h"

#include <atomic>

#include "SDK/LoggerUtils.h"
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

} // namespace TwoFactorAuthentication
} // namespace Engine
