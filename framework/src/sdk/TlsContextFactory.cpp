#include "TlsContextFactory.h"

#include <mutex>

#include <Poco/Net/NetSSL.h>
#include <openssl/ssl.h>

namespace SDK {

namespace {

const char* const kCiphers = "HIGH:!aNULL:!eNULL:!MD5:!RC4:!3DES";

void InitializeOnce()
{
    static std::once_flag once;
    // Never undone: the library stays usable until the process ends.
    std::call_once(once, [] { Poco::Net::initializeSSL(); });
}

} // namespace

Poco::Net::Context::Ptr TlsContextFactory::CreateClientContext(const std::string& caFile)
{
    InitializeOnce();
    Poco::Net::Context::Params params;
    params.caLocation = caFile;
    params.loadDefaultCAs = false;
    // STRICT also checks the host name of "localhost" peers, which RELAXED skips.
    params.verificationMode = Poco::Net::Context::VERIFY_STRICT;
    params.cipherList = kCiphers;
    Poco::Net::Context::Ptr context(new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params));
    context->requireMinimumProtocol(Poco::Net::Context::PROTO_TLSV1_2);
    context->enableExtendedCertificateVerification(true);
    // Lets a connection resume the TLS session of an earlier one to the same
    // service (a short handshake without certificate exchange).
    context->enableSessionCache(true);
    // No verify callback: OpenSSL's chain verification decides alone.
    SSL_CTX_set_verify(context->sslContext(), SSL_VERIFY_PEER, nullptr);
    return context;
}

} // namespace SDK
