#pragma once

#include <string>

#include "Message.h"

namespace brackmoor::verifyd {

/// A way of getting a message to a person: the outbox, SMTP or the SMS hook.
/// Implementations are thread-safe; request threads deliver concurrently.
class DeliveryChannel {
public:
    virtual ~DeliveryChannel() = default;

    /// Hands `message` over. false and `error` set (one line, without the
    /// message text, which holds a code) when it could not be handed over.
    virtual bool Deliver(const Message& message, std::string& error) = 0;

    /// Short name for log lines: "outbox", "smtp", "sms-hook".
    virtual const char* Name() const = 0;
};

} // namespace brackmoor::verifyd
