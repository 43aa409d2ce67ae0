#pragma once

#include <chrono>
#include <string>

#include "DeliveryChannel.h"

namespace brackmoor::verifyd {

/// Delivers mail to an SMTP relay, one connection per message.
///
/// Meant for a relay the operator runs nearby (the host's own MTA, usually):
/// the session is plain SMTP without authentication, and the relay takes
/// care of getting the mail onward. Connecting, every reply and the whole
/// exchange are bounded by the configured time-out. The relay accepting the
/// message counts as delivered.
class SmtpChannel : public DeliveryChannel {
public:
    SmtpChannel(std::string relayHost, unsigned short relayPort, std::string sender,
                std::chrono::seconds limit)
        : host(std::move(relayHost)), port(relayPort), from(std::move(sender)), timeout(limit)
    {
    }

    bool Deliver(const Message& message, std::string& error) override;
    const char* Name() const override { return "smtp"; }

private:
    const std::string host;
    const unsigned short port;
    const std::string from;
    const std::chrono::seconds timeout;
};

} // namespace brackmoor::verifyd
