#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "Service.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"

namespace verifyd_test {

/// One answer of the service as the agent's HTTP client received it.
struct Reply {
    int status = -1;
    std::string body;
    std::map<std::string, std::string> headers;
    Json::Value json; ///< the body parsed, null when it is not JSON
};

/// A brackmoor-verifyd service in this process on 127.0.0.1 and a free port,
/// with its own directory, throw-away certificates, database and outbox, and
/// the agent's SDK (Framework::ConfigManager) pointed at it, so that requests
/// go through SDK::HttpUtils exactly as the agent sends them.
class VerifydHarness {
public:
    /// `extraConfig` is appended to the INI file, for instance
    /// "[limits]\ncodes_per_minute = 2\n".
    explicit VerifydHarness(const std::string& extraConfig = "");
    ~VerifydHarness();

    /// "" when the service runs; otherwise what went wrong.
    const std::string& Error() const { return error; }

    /// Registers an agent with `contacts` (as an operator would type them)
    /// through the administration command's code path; returns its token.
    std::string AddAgent(const std::string& id, const std::vector<std::string>& contacts);

    /// GET or POST "https://SERVICE_ADDRESS<path>" through SDK::HttpUtils.
    Reply Get(const std::string& path, const std::map<std::string, std::string>& params,
              const std::map<std::string, std::string>& headers);
    Reply Post(const std::string& path, const std::map<std::string, std::string>& params,
               const std::map<std::string, std::string>& headers, const std::string& body);

    /// Outbox file names, oldest first (as the names sort).
    std::vector<std::string> OutboxFiles() const;
    /// The content of the newest outbox file, "" when there is none.
    std::string NewestOutboxMessage() const;

    const TestSupport::TempDir& Dir() const { return dir; }
    std::string ConfigFile() const { return dir.File("verifyd.ini"); }
    brackmoor::verifyd::Service& Server() { return *service; }

private:
    TestSupport::TempDir dir;
    std::unique_ptr<TestSupport::TestCertificates> certificates;
    std::unique_ptr<brackmoor::verifyd::Service> service;
    std::string error;
};

/// The hash the agent computes for a contact a user typed: the PAM module
/// normalises the text, the agent hashes it with the SDK.
std::string AgentSideHash(const std::string& typed);

} // namespace verifyd_test
