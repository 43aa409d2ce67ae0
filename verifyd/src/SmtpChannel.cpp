#include "SmtpChannel.h"

#include <Poco/Exception.h>
#include <Poco/Net/MailMessage.h>
#include <Poco/Net/MailRecipient.h>
#include <Poco/Net/SMTPClientSession.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

namespace brackmoor::verifyd {

bool SmtpChannel::Deliver(const Message& message, std::string& error)
{
    using namespace Poco::Net;
    const Poco::Timespan limit(static_cast<long>(timeout.count()), 0);
    try {
        StreamSocket socket;
        socket.connect(SocketAddress(host, port), limit);
        SMTPClientSession session(socket);
        session.setTimeout(limit);
        session.login();

        MailMessage mail;
        mail.setSender(from);
        mail.addRecipient(MailRecipient(MailRecipient::PRIMARY_RECIPIENT, message.to));
        mail.setSubject("Brackmoor verification code");
        mail.setContentType("text/plain; charset=us-ascii");
        mail.setContent(message.text + "\r\n", MailMessage::ENCODING_7BIT);
        session.sendMessage(mail);
        session.close();
        return true;
    } catch (const Poco::Exception& e) {
        error = "smtp " + host + ":" + std::to_string(port) + ": " + e.displayText();
        return false;
    }
}

} // namespace brackmoor::verifyd
