#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace TestSupport {

/// A throw-away certificate authority and one server certificate it signed,
/// made by the openssl tool (P-256 keys, valid for a day) as PEM files in a
/// directory: "<prefix>ca.pem" and its key "<prefix>ca.key",
/// "<prefix>server.pem" and "<prefix>server.key". Two instances have
/// unrelated CAs, which is how tests get a certificate the client must refuse.
class TestCertificates {
public:
    /// Creates the files in `directory` (which must exist). `names` are the server's
    /// subject alternative names: IPv4 literals become IP entries, others DNS entries.
    explicit TestCertificates(const std::string& directory, const std::string& prefix = "",
                              const std::vector<std::string>& names = {"localhost", "127.0.0.1"})
        : caFile(directory + "/" + prefix + "ca.pem"), certFile(directory + "/" + prefix + "server.pem"),
          keyFile(directory + "/" + prefix + "server.key")
    {
        std::string altNames;
        for (const std::string& name : names) {
            const bool ip = name.find_first_not_of("0123456789.") == std::string::npos;
            altNames += (altNames.empty() ? " -addext subjectAltName=" : ",") + std::string(ip ? "IP:" : "DNS:") + name;
        }
        const std::string make = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 ";
        const std::string caKey = directory + "/" + prefix + "ca.key";
        error = Run(make + "-keyout '" + caKey + "' -out '" + caFile + "' -subj '/CN=Brackmoor Test CA " + prefix +
                    "' -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign");
        error += error.empty() ? Run(make + "-keyout '" + keyFile + "' -out '" + certFile + "' -CA '" + caFile +
                                     "' -CAkey '" + caKey + "' -subj '/CN=" + (names.empty() ? "server" : names[0]) +
                                     "' -addext basicConstraints=critical,CA:FALSE "
                                     "-addext extendedKeyUsage=serverAuth" + altNames)
                               : "";
    }

    bool Ok() const { return error.empty(); }
    /// Which step failed, with the tool's output; empty when none did.
    const std::string& Error() const { return error; }
    const std::string& CaFile() const { return caFile; }
    const std::string& ServerCertFile() const { return certFile; }
    const std::string& ServerKeyFile() const { return keyFile; }

private:
    /// Runs `command` in the shell; empty when it succeeds, else the command and its output.
    static std::string Run(const std::string& command)
    {
        std::string output = "test certificates: " + command + ": ";
        FILE* pipe = popen((command + " 2>&1").c_str(), "r");
        for (char line[256]; pipe != nullptr && fgets(line, sizeof(line), pipe) != nullptr; output += line) {
        }
        return pipe != nullptr && pclose(pipe) == 0 ? "" : output;
    }

    std::string caFile, certFile, keyFile, error;
};

} // namespace TestSupport
