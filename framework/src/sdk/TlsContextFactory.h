#pragma once

#include <string>

#include <Poco/Net/Context.h>

namespace SDK {

/// Builds the TLS client context of the agent's HTTPS client.
///
/// The context trusts only the certificates of one CA file (never the
/// system's store), requires TLS 1.2 or later, and makes OpenSSL's own
/// verification result final: a failed chain ends the handshake, without
/// consulting the process-wide certificate handlers of the TLS library,
/// which might prompt on a console or accept anything. The host name is
/// checked against the certificate after the handshake.
class TlsContextFactory {
public:
    /// A new client context trusting `caFile`. Throws Poco::Exception when the
    /// file cannot be loaded (the caller turns it into a result).
    static Poco::Net::Context::Ptr CreateClientContext(const std::string& caFile);
};

} // namespace SDK
