#include "SmtpChannel.h"

#include <sstream>

#include <Poco/Exception.h>
#include <Poco/Net/MailMessage.h>
#include <Poco/Net/MailRecipient.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SMTPClientSession.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

namespace brackmoor::verifyd {
namespace {

using Poco::Net::SMTPClientSession;

/// Sends one envelope command and insists on a 2xx reply.
void Command(SMTPClientSession& session, const std::string& command)
{
    std::string reply;
    const int status = session.sendCommand(command, reply);
    if (status / 100 != 2) {
        throw Poco::Net::SMTPException(reply);
    }
}

} // namespace

bool SmtpChannel::Deliver(const Message& message, std::string& error)
{
    using namespace Poco::Net;
    const Poco::Timespan limit(static_cast<long>(timeout.count()), 0);
    try {
        MailMessage mail;
        mail.setSender(from);
        mail.addRecipient(MailRecipient(MailRecipient::PRIMARY_RECIPIENT, message.to));
        mail.setSubject("Brackmoor verification code");
        mail.setContentType("text/plain; charset=us-ascii");
        mail.setContent(message.text + "\r\n", MailMessage::ENCODING_7BIT);
        std::ostringstream text;
        mail.write(text);
        std::istringstream content(text.str());

        StreamSocket socket;
        socket.connect(SocketAddress(host, port), limit);
        SMTPClientSession session(socket);
        session.setTimeout(limit);
        session.login();
        // The envelope is written by hand: "MAIL FROM:<a>" without the blank
        // that some strict relays refuse.
        Command(session, "MAIL FROM:<" + from + ">");
        Command(session, "RCPT TO:<" + message.to + ">");
        session.sendData();
        session.sendMessage(content); // dot-stuffed, ends with "." and checks the reply
        session.close();
        return true;
    } catch (const Poco::Exception& e) {
        error = "smtp " + host + ":" + std::to_string(port) + ": " + e.displayText();
        return false;
    }
}

} // namespace brackmoor::verifyd
