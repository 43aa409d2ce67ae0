#include "FakeVerificationService.h"

#include <Poco/SHA2Engine.h>

#include "Framework/ConfigManager.h"
#include "SDK/HttpUtils.h"

namespace TfaTest {

FakeVerificationService::FakeVerificationService()
{
    if (!certificates.Ok()) {
        error = certificates.Error();
        return;
    }
    if (!server.Start(error)) {
        return;
    }
    SetToken("token-1");
    Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    config->Set("agent.id", kAgentId);
    config->Set("service.address", server.Address());
    config->Set("service.ca_file", certificates.CaFile());
    config->Set("service.auth_token_file", dir.File("token"));
    config->Set("service.connect_timeout", "2");
    config->Set("service.read_timeout", std::to_string(kReadTimeoutSeconds));
    // A context built for an earlier object's CA must not be reused.
    SDK::HttpUtils::GetInstance()->Reset();
}

void FakeVerificationService::SetToken(const std::string& token)
{
    dir.Write("token", token + "\n", 0600);
}

void FakeVerificationService::Queue(const std::string& path, int status, const std::string& body)
{
    server.Queue(path, TestSupport::ScriptedAnswer{status, body, {}});
}

std::string Sha256Hex(const std::string& text)
{
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(text);
    return Poco::DigestEngine::digestToHex(engine.digest());
}

std::string CommListJson(const std::vector<std::string>& entries, const std::string& extraMembers)
{
    std::string json = "{\"comm_list\":[";
    for (size_t i = 0; i < entries.size(); ++i) {
        json += (i == 0 ? "\"" : ",\"") + entries[i] + "\"";
    }
    return json + "]" + (extraMembers.empty() ? "" : "," + extraMembers) + "}";
}

} // namespace TfaTest
