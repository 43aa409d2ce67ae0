#include "Courier.h"

#include <Poco/Logger.h>

namespace brackmoor::verifyd {
namespace {

/// Enough of a contact to tell which one failed without writing it to the log.
std::string Masked(const std::string& contact)
{
    if (contact.size() <= 5) {
        return std::string(contact.size(), '*');
    }
    return contact.substr(0, 3) + std::string(contact.size() - 5, '*') +
           contact.substr(contact.size() - 2);
}

} // namespace

Courier::Courier(std::unique_ptr<DeliveryChannel> outboxChannel,
                 std::unique_ptr<DeliveryChannel> mailChannel,
                 std::unique_ptr<DeliveryChannel> smsChannel)
    : outbox(std::move(outboxChannel)), mail(std::move(mailChannel)), sms(std::move(smsChannel))
{
}

DeliveryChannel& Courier::ChannelFor(Message::Kind kind)
{
    if (kind == Message::Kind::Mail && mail) {
        return *mail;
    }
    if (kind == Message::Kind::Phone && sms) {
        return *sms;
    }
    return *outbox;
}

bool Courier::DeliverToAll(const std::string& agent, const std::vector<std::string>& contacts,
                           const std::string& text)
{
    for (const std::string& contact : contacts) {
        Message message{KindOf(contact), contact, text};
        DeliveryChannel& channel = ChannelFor(message.kind);
        std::string error;
        if (!channel.Deliver(message, error)) {
            Poco::Logger::get("verifyd.delivery")
                .error("delivery failed: agent=%s channel=%s to=%s: %s", agent,
                       std::string(channel.Name()), Masked(contact), error);
            return false;
        }
    }
    return true;
}

} // namespace brackmoor::verifyd
