#pragma once

#include <memory>
#include <string>
#include <vector>

#include "TestSupport/HttpsTestServer.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace TfaTest {

/// The agent's verification service, played by a real HTTPS server on
/// loopback with a certificate made for this run, and the agent's
/// configuration pointed at it: service address, CA file, token file, agent
/// id and a short read time-out (so that a stalled service costs seconds).
class FakeVerificationService {
public:
    static constexpr const char* kAgentId = "agent-7f3a";
    static constexpr int kReadTimeoutSeconds = 2;

    FakeVerificationService();
    ~FakeVerificationService();

    /// False when the certificates or the server could not be made; Error() says why.
    bool Ok() const { return error.empty(); }
    const std::string& Error() const { return error; }

    TestSupport::HttpsTestServer& Server() { return *server; }
    /// Replaces the agent's token file content (the client reads it per request).
    void SetToken(const std::string& token);
    /// Starts a fresh server (nothing recorded, nothing queued) on a new
    /// port, with the same certificate, and points the configuration at it.
    void Restart();

    /// Queues a contact list answer with these entries (JSON strings).
    void QueueCommList(const std::vector<std::string>& entries);
    /// Queues a raw answer for the list path.
    void QueueCommListAnswer(int status, const std::string& body);
    /// Queues a raw answer for the code path.
    void QueueCodeAnswer(int status, const std::string& body);

private:
    void Configure();

    TestSupport::TempDir dir;
    std::unique_ptr<TestSupport::TestCertificates> certificates;
    std::unique_ptr<TestSupport::HttpsTestServer> server;
    std::string error;
};

/// Paths of the service's two calls.
constexpr const char* kCommListPath = "/tfa_phone_num";
constexpr const char* kCodePath = "/tfa_code";

/// Lower-case hex SHA-256, computed here with OpenSSL directly: the form in
/// which the service publishes contacts.
std::string Sha256Hex(const std::string& text);

/// {"comm_list":[...entries as JSON strings...]} plus `extraMembers` (JSON
/// text of further members, without braces), for scripted answers.
std::string CommListJson(const std::vector<std::string>& entries, const std::string& extraMembers = "");

} // namespace TfaTest
