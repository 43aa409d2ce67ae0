#pragma once

#include <string>

namespace brackmoor::verifyd {

/// One text to one contact.
struct Message {
    /// The kind of contact, which decides the channel.
    enum class Kind {
        Phone, ///< an E.164 number: SMS hook, else outbox
        Mail,  ///< a mail address: SMTP, else outbox
    };

    Kind kind = Kind::Phone;
    std::string to;   ///< normalised contact
    std::string text; ///< one line, no line break
};

/// Kind of a normalised contact: mail addresses are the ones with an "@",
/// the same rule the contact normalisation uses.
inline Message::Kind KindOf(const std::string& contact)
{
    return contact.find('@') != std::string::npos ? Message::Kind::Mail : Message::Kind::Phone;
}

/// "sms" or "mail": the name of the kind in outbox files and log lines.
inline const char* KindName(Message::Kind kind)
{
    return kind == Message::Kind::Mail ? "mail" : "sms";
}

} // namespace brackmoor::verifyd
