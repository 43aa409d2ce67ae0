#include "TestSupport/TestCertificates.h"

#include <memory>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace TestSupport {

namespace {

struct Free {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
    void operator()(BIO* p) const { BIO_free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Free>;
using Cert = std::unique_ptr<X509, Free>;

/// Thrown inside this unit only; the constructor turns it into Error().
struct Failure {
    std::string what;
};

void Require(bool ok, const std::string& step)
{
    if (!ok) {
        const unsigned long code = ERR_get_error();
        char detail[256] = "";
        ERR_error_string_n(code, detail, sizeof detail);
        throw Failure{step + " failed: " + detail};
    }
}

Key NewKey()
{
    Key key(EVP_EC_gen("P-256"));
    Require(key != nullptr, "key generation");
    return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Free> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
    Require(ext != nullptr && X509_add_ext(cert, ext.get(), -1) == 1, "extension " + value);
}

/// An unsigned certificate for `subjectKey` named `commonName`, issued by
/// `issuer` (by itself when null), valid from an hour ago for a day.
Cert NewCertificate(EVP_PKEY* subjectKey, const std::string& commonName, X509* issuer, long serial)
{
    Cert cert(X509_new());
    Require(cert != nullptr, "certificate allocation");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name);
    Require(X509_set_pubkey(cert.get(), subjectKey) == 1, "public key");
    return cert;
}

void Sign(X509* cert, EVP_PKEY* key)
{
    Require(X509_sign(cert, key, EVP_sha256()) > 0, "signing");
}

void WritePem(const std::string& path, X509* cert, EVP_PKEY* key)
{
    std::unique_ptr<BIO, Free> out(BIO_new_file(path.c_str(), "w"));
    Require(out != nullptr, "opening " + path);
    if (cert != nullptr) {
        Require(PEM_write_bio_X509(out.get(), cert) == 1, "writing " + path);
    }
    if (key != nullptr) {
        Require(PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
                "writing " + path);
    }
}

std::string AltNames(const std::vector<std::string>& names)
{
    std::string list;
    for (const std::string& name : names) {
        const bool ip = name.find_first_not_of("0123456789.") == std::string::npos;
        list += (list.empty() ? "" : ",") + std::string(ip ? "IP:" : "DNS:") + name;
    }
    return list;
}

} // namespace

TestCertificates::TestCertificates(const std::string& directory, const std::string& prefix,
                                   const std::vector<std::string>& names)
    : caFile(directory + "/" + prefix + "ca.pem"),
      certFile(directory + "/" + prefix + "server.pem"),
      keyFile(directory + "/" + prefix + "server.key")
{
    try {
        Key caKey = NewKey();
        Cert ca = NewCertificate(caKey.get(), "Brackmoor Test CA " + prefix, nullptr, 1);
        AddExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
        AddExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
        AddExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
        Sign(ca.get(), caKey.get());

        Key serverKey = NewKey();
        Cert server = NewCertificate(serverKey.get(), names.empty() ? "server" : names[0], ca.get(), 2);
        AddExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
        AddExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth");
        AddExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
        if (!names.empty()) {
            AddExtension(server.get(), ca.get(), NID_subject_alt_name, AltNames(names));
        }
        Sign(server.get(), caKey.get());

        WritePem(caFile, ca.get(), nullptr);
        WritePem(certFile, server.get(), nullptr);
        WritePem(keyFile, nullptr, serverKey.get());
    } catch (const Failure& failure) {
        error = "test certificates: " + failure.what;
    }
}

} // namespace TestSupport
