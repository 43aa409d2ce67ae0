#pragma once

#include <string>
#include <vector>

namespace TestSupport {

/// A throw-away certificate authority and one server certificate it signed,
/// made at test time and written as PEM files into a directory:
/// "<prefix>ca.pem", "<prefix>server.pem", "<prefix>server.key".
///
/// By default the server certificate names "localhost" and 127.0.0.1.
/// Two instances have unrelated CAs, which is how tests get a certificate
/// that the client must refuse.
class TestCertificates {
public:
    /// Creates the files in `directory` (which must exist). `names` are the
    /// server's subject alternative names: IPv4 literals become IP entries,
    /// anything else DNS entries.
    explicit TestCertificates(const std::string& directory, const std::string& prefix = "",
                              const std::vector<std::string>& names = {"localhost", "127.0.0.1"});

    /// False when any step failed; Error() then says which.
    bool Ok() const { return error.empty(); }
    const std::string& Error() const { return error; }

    const std::string& CaFile() const { return caFile; }
    const std::string& ServerCertFile() const { return certFile; }
    const std::string& ServerKeyFile() const { return keyFile; }

private:
    std::string caFile;
    std::string certFile;
    std::string keyFile;
    std::string error;
};

} // namespace TestSupport
