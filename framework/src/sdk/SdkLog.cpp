#include "SdkLog.h"

#include <cstring>
#include <exception>

#include <Poco/Logger.h>

#include "SDK/LoggerUtils.h"

namespace SDK {
namespace Internal {

namespace {

const char* const kLoggerName = "sdk";

Poco::Logger* Logger()
{
    return LoggerUtils::GetInstance()->GetModuleLogger(kLoggerName, false);
}

} // namespace

bool SdkLogEnabled(int priority)
{
    Poco::Logger* logger = Logger();
    return logger != nullptr && logger->is(priority);
}

void SdkLog(int priority, const std::string& text, const char* file, int line)
{
    Poco::Logger* logger = Logger();
    if (logger == nullptr) {
        return;
    }
    // The record keeps a pointer to the file name: point into the literal
    // __FILE__, which lives as long as the library.
    const char* slash = std::strrchr(file, '/');
    const char* base = slash != nullptr ? slash + 1 : file;
    try {
        logger->log(Poco::Message(kLoggerName, text, static_cast<Poco::Message::Priority>(priority),
                                  base, line));
    } catch (const std::exception&) {
        // Logging is best effort.
    }
}

} // namespace Internal
} // namespace SDK
