#pragma once

#include <string>
#include <vector>

#include "TestSupport/HttpsTestServer.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace TfaTest {

/// The agent's verification service, played by a real HTTPS server on
/// loopback with a certificate made for this object, and the agent's
/// configuration pointed at it: address, CA file, token file, agent id and a
/// short read time-out (so that a stalled service costs seconds).
class FakeVerificationService {
public:
    static constexpr const char* kAgentId = "agent-7f3a";
    static constexpr int kReadTimeoutSeconds = 2;

    FakeVerificationService();

    /// False when the certificates or the server could not be made; Error() says why.
    bool Ok() const { return error.empty(); }
    const std::string& Error() const { return error; }

    TestSupport::HttpsTestServer& Server() { return server; }
    /// Replaces the token file's content (the client reads it per request).
    void SetToken(const std::string& token);
    /// Queues the answer to the next request to `path`.
    void Queue(const std::string& path, int status, const std::string& body);

private:
    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates{dir.Path()};
    TestSupport::HttpsTestServer server{certificates.ServerCertFile(), certificates.ServerKeyFile()};
    std::string error;
};

/// Paths of the service's two calls.
constexpr const char* kCommListPath = "/tfa_phone_num";
constexpr const char* kCodePath = "/tfa_code";

/// Lower-case hex SHA-256, computed apart from the code under test: the form
/// in which the service publishes contacts.
std::string Sha256Hex(const std::string& text);

/// {"comm_list":[...entries...]} plus `extraMembers` (JSON text of further
/// members, without braces), for scripted answers.
std::string CommListJson(const std::vector<std::string>& entries, const std::string& extraMembers = "");

} // namespace TfaTest
