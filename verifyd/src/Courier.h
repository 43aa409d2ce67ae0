#pragma once

#include <memory>
#include <string>
#include <vector>

#include "DeliveryChannel.h"

namespace brackmoor::verifyd {

/// Gets a text to every contact of an agent, each over the channel its kind
/// calls for: mail addresses over SMTP and phone numbers over the SMS hook
/// when those are configured, everything else to the outbox.
///
/// Thread-safe as its channels are.
class Courier {
public:
    /// The outbox is required; the mail and SMS channels may be null (not
    /// configured).
    Courier(std::unique_ptr<DeliveryChannel> outboxChannel,
            std::unique_ptr<DeliveryChannel> mailChannel,
            std::unique_ptr<DeliveryChannel> smsChannel);

    /// Delivers `text` to each of `contacts` in turn and stops at the first
    /// failure, which is logged (channel, masked contact, reason; never the
    /// text): the caller then withholds the code, so further messages would
    /// only carry a code nobody can use. true when every delivery succeeded.
    bool DeliverToAll(const std::string& agent, const std::vector<std::string>& contacts,
                      const std::string& text);

private:
    DeliveryChannel& ChannelFor(Message::Kind kind);

    std::unique_ptr<DeliveryChannel> outbox;
    std::unique_ptr<DeliveryChannel> mail;
    std::unique_ptr<DeliveryChannel> sms;
};

} // namespace brackmoor::verifyd
