#pragma once

#include <algorithm>
#include <mutex>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

namespace TestSupport {

/// A log channel that keeps every record, so that tests can check what was
/// logged: text, priority, source file and line.
class CapturingChannel : public Poco::Channel {
public:
    using Ptr = Poco::AutoPtr<CapturingChannel>;

    void log(const Poco::Message& msg) override
    {
        std::lock_guard<std::mutex> guard(lock);
        messages.push_back(msg);
    }
    /// Copies of the records received so far, oldest first.
    std::vector<Poco::Message> Messages() const
    {
        std::lock_guard<std::mutex> guard(lock);
        return messages;
    }
    /// True when some record's text contains `part`.
    bool Contains(const std::string& part) const
    {
        std::lock_guard<std::mutex> guard(lock);
        return std::any_of(messages.begin(), messages.end(),
                           [&part](const Poco::Message& msg) { return msg.getText().find(part) != std::string::npos; });
    }
    void Clear()
    {
        std::lock_guard<std::mutex> guard(lock);
        messages.clear();
    }

private:
    mutable std::mutex lock;
    std::vector<Poco::Message> messages;
};

} // namespace TestSupport
