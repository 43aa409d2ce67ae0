#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "SDK/LocklessQueue.h"

namespace Framework {

class Task;

/// A message between framework parts and tasks, passed by shared pointer.
class Message {
public:
    Message(unsigned long messageType, const std::string& sender, const std::string& body)
        : type(messageType), source(sender), payload(body) {}
    virtual ~Message() = default;

    unsigned long type;
    std::string source;
    std::string payload;
};

/// Routes messages to subscribed tasks by (message type, task name).
class MessageProductor {
public:
    virtual ~MessageProductor() = default;

    void Subscribe(unsigned long type, const std::string& taskName, Task* task);
    void Unsubscribe(unsigned long type, const std::string& taskName);

    /// Enqueues `message` to every task subscribed to its type; returns how
    /// many tasks accepted it.
    int Publish(const std::shared_ptr<Message>& message);

private:
    std::map<std::pair<unsigned long, std::string>, Task*> subscribers;
};

/// The receiving side of a task: a bounded lock-free queue, filled by any
/// thread and drained by the task's own thread.
class MessageConsumer {
public:
    explicit MessageConsumer(unsigned int capacity)
        : queue(capacity, /*singleProducer=*/false, /*singleConsumer=*/true,
                /*releaseOnDequeue=*/true) {}
    virtual ~MessageConsumer() = default;

    SDK::LocklessQueue<std::shared_ptr<Message>> queue;
};

} // namespace Framework
