#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

namespace TestSupport {

/// A log channel that keeps every record, so that tests can check what was
/// logged: text, priority, source file and line.
///
///   Poco::AutoPtr<CapturingChannel> capture(new CapturingChannel);
///   logger->setChannel(capture);
class CapturingChannel : public Poco::Channel {
public:
    using Ptr = Poco::AutoPtr<CapturingChannel>;

    void log(const Poco::Message& msg) override;

    /// Copies of the records received so far, oldest first.
    std::vector<Poco::Message> Messages() const;
    /// True when some record's text contains `part`.
    bool Contains(const std::string& part) const;
    void Clear();

private:
    mutable std::mutex lock;
    std::vector<Poco::Message> messages;
};

} // namespace TestSupport
