#pragma once

#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include "TestSupport/CapturingChannel.h"

namespace TfaTest {

/// Records everything the module logs, debug included, while it exists;
/// the module logger's channel and level are restored afterwards.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Whether a record with exactly `text` and `priority` came from the task's source file.
    bool Has(Poco::Message::Priority priority, const std::string& text) const;
    /// Whether such a record's text starts with `prefix` (for texts carrying an errno).
    bool HasPrefix(Poco::Message::Priority priority, const std::string& prefix) const;
    /// How many records have exactly `text`, whatever their priority.
    size_t Count(const std::string& text) const;
    /// Every text so far, one per line, for failure messages.
    std::string Dump() const;
    void Clear();

private:
    Poco::AutoPtr<TestSupport::CapturingChannel> channel;
    Poco::AutoPtr<Poco::Channel> previousChannel;
    int previousLevel = 0;
};

} // namespace TfaTest
