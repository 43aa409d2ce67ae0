#include "TestSupport/CapturingChannel.h"

namespace TestSupport {

void CapturingChannel::log(const Poco::Message& msg)
{
    std::lock_guard<std::mutex> guard(lock);
    messages.push_back(msg);
}

std::vector<Poco::Message> CapturingChannel::Messages() const
{
    std::lock_guard<std::mutex> guard(lock);
    return messages;
}

bool CapturingChannel::Contains(const std::string& part) const
{
    std::lock_guard<std::mutex> guard(lock);
    for (const Poco::Message& msg : messages) {
        if (msg.getText().find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void CapturingChannel::Clear()
{
    std::lock_guard<std::mutex> guard(lock);
    messages.clear();
}

} // namespace TestSupport
