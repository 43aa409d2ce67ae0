#include "Framework/Message.h"

#include "Framework/Task.h"

namespace Framework {

void MessageProductor::Subscribe(unsigned long type, const std::string& taskName, Task* task)
{
    subscribers[{type, taskName}] = task;
}

void MessageProductor::Unsubscribe(unsigned long type, const std::string& taskName)
{
    subscribers.erase({type, taskName});
}

int MessageProductor::Publish(const std::shared_ptr<Message>& message)
{
    int accepted = 0;
    for (auto& entry : subscribers) {
        if (entry.first.first != message->type || entry.second == nullptr) {
            continue;
        }
        std::shared_ptr<Message> copy = message;
        if (entry.second->EnqueueMsg(copy) == 0) {
            ++accepted;
        }
    }
    return accepted;
}

} // namespace Framework
