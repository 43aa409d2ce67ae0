#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <Poco/File.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "AdminCommand.h"
#include "Framework/ConfigManager.h"
#include "SDK/CryptoCodeUtils.h"
#include "SDK/HttpUtils.h"
#include "SDK/JsonUtils.h"
#include "Service.h"
#include "TestSupport/TempDir.h"
#include "TestSupport/TestCertificates.h"
#include "brackmoor/Contact.h"

namespace verifyd_test {

using Params = std::map<std::string, std::string>;

/// One answer of the service as the agent's HTTP client received it.
struct Reply {
    int status = -1;
    std::string body;
    Params headers;
    Json::Value json; ///< the body parsed, null when it is not JSON
};

/// The hash the agent computes for a contact a user typed: the PAM module
/// normalises the text, the agent hashes it with the SDK.
inline std::string AgentSideHash(const std::string& typed)
{
    std::string hash;
    SDK::CryptoCodeUtils::GetStrSha256(brackmoor::NormalizeContact(typed), hash, 10240);
    return hash;
}

/// The body the agent sends: {"random_num": N} rendered by the SDK.
inline std::string CodeBody(int reference)
{
    Json::Value body(Json::objectValue);
    body["random_num"] = reference;
    return SDK::JsonUtils::JsonToString(body);
}

/// A brackmoor-verifyd service in this process on 127.0.0.1 and a free port, with its own directory,
/// throw-away certificates, database and outbox, and one agent, "web-01", with a phone and a mail contact
/// as an operator types them. The agent's SDK (Framework::ConfigManager) points at it, so that requests
/// go through SDK::HttpUtils exactly as the agent sends them.
class ServiceTest : public ::testing::Test {
protected:
    /// `extraConfig` is appended to the INI file, for instance "[sms]\ncommand = hook.sh\n".
    explicit ServiceTest(const std::string& extraConfig = "") : extra(extraConfig) {}

    void SetUp() override
    {
        ASSERT_TRUE(certificates.Ok()) << certificates.Error();
        brackmoor::verifyd::ServiceConfig config;
        std::string error;
        ASSERT_TRUE(brackmoor::verifyd::LoadServiceConfig(WriteConfig("verifyd.ini", 0, extra), config, error))
            << error;
        service = brackmoor::verifyd::Service::Create(config, error);
        ASSERT_TRUE(service) << error;
        service->Start();
        Framework::ConfigManager* agent = Framework::ConfigManager::GetInstance();
        agent->Set("service.address", "localhost:" + std::to_string(Port()));
        agent->Set("service.ca_file", certificates.CaFile());
        token = AddAgent("web-01", {"+49 151 1234-5678", "Alice@Example.org"});
        ASSERT_FALSE(token.empty());
    }

    /// Writes a configuration for this directory's certificates, database and
    /// outbox, listening on `port`, followed by `more`; returns its path.
    std::string WriteConfig(const std::string& name, unsigned short port, const std::string& more) const
    {
        return dir.Write(name, "[server]\nport = " + std::to_string(port) + "\nthreads = 8\n"
                               "[tls]\ncertificate = server.pem\nprivate_key = server.key\n"
                               "[database]\npath = verifyd.db\n[outbox]\ndirectory = outbox\n" + more);
    }
    unsigned short Port() const { return service->Port(); }
    const std::string& CaFile() const { return certificates.CaFile(); }

    /// Registers an agent with `contacts` (as an operator would type them)
    /// through the administration command's code path; returns its token.
    std::string AddAgent(const std::string& id, const std::vector<std::string>& contacts)
    {
        std::ostringstream out, err;
        brackmoor::verifyd::AdminCommand admin(service->Store(), out, err);
        bool added = admin.Run({"agent", "add", id}) == 0;
        for (const std::string& contact : contacts) {
            added = added && admin.Run({"contact", "add", id, contact}) == 0;
        }
        return added ? out.str().substr(0, 64) : "";
    }

    /// `method` ("GET" or "POST") "https://SERVICE_ADDRESS<path>" through SDK::HttpUtils.
    Reply Call(const std::string& method, const std::string& path, const Params& params, const Params& headers,
               const std::string& body = "")
    {
        SDK::HttpUtils* http = SDK::HttpUtils::GetInstance();
        const std::string url = "https://SERVICE_ADDRESS" + path;
        Reply reply;
        reply.status = method == "GET" ? http->Get(url, params, headers, reply.headers, reply.body, 200)
                                       : http->Post(url, params, headers, body, reply.headers, reply.body, 200);
        if (SDK::JsonUtils::ParseJsonStr(reply.body.data(), reply.body.size(), reply.json) != 0) {
            reply.json = Json::Value();
        }
        return reply;
    }

    Reply List(const std::string& withToken = "")
    {
        return Call("GET", "/tfa_phone_num", Agent(), {{"X-Auth-Token", withToken.empty() ? token : withToken}});
    }
    /// The code request exactly as the agent sends it.
    Reply RequestCode() { return Call("POST", "/tfa_code", Agent(), CodeHeaders(), CodeBody(4711)); }
    static Params Agent(const std::string& id = "web-01") { return {{"agent_id", id}}; }
    Params CodeHeaders() const { return {{"X-Auth-Token", token}, {"Content-Type", "application/json"}}; }

    /// The outbox messages, oldest first.
    std::vector<std::string> OutboxMessages() const
    {
        std::vector<std::string> messages; // the file names, then each replaced by its content
        Poco::File(dir.File("outbox")).list(messages);
        std::sort(messages.begin(), messages.end());
        for (std::string& message : messages) {
            message = TestSupport::ReadWholeFile(dir.File("outbox/" + message));
        }
        return messages;
    }

    std::string extra;
    TestSupport::TempDir dir;
    TestSupport::TestCertificates certificates{dir.Path()};
    std::unique_ptr<brackmoor::verifyd::Service> service; // stops before the folder goes
    std::string token;
};

} // namespace verifyd_test
