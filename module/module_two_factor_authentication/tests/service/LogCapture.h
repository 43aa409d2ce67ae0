#pragma once

#include <string>

#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "TestSupport/CapturingChannel.h"

namespace TfaTest {

/// Records everything the module logs, debug included, while it exists; the
/// module logger's channel and level are restored afterwards. Works for the
/// module linked in and for the plug-in loaded with dlopen alike, since both
/// log through the agent's shared logger registry.
class LogCapture {
public:
    static constexpr const char* kTaskFile = "TwoFactorAuthenticationTask.cpp";

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Whether a record with exactly `text` and `priority` came from `file`
    /// (the source's base name, with a line number).
    bool Has(Poco::Message::Priority priority, const std::string& text, const std::string& file = kTaskFile) const;
    /// How many records have exactly `text`, whatever their priority.
    size_t Count(const std::string& text) const;
    /// Every record so far, one per line, for failure messages.
    std::string Dump() const;
    void Clear() { channel->Clear(); }

private:
    Poco::Logger& logger;
    TestSupport::CapturingChannel::Ptr channel;
    Poco::AutoPtr<Poco::Channel> previousChannel;
    int previousLevel;
};

} // namespace TfaTest
