#include "FakeVerificationService.h"

#include <openssl/evp.h>

#include <cstdio>

#include <json/json.h>

#include "Framework/ConfigManager.h"
#include "SDK/HttpUtils.h"

namespace TfaTest {

FakeVerificationService::FakeVerificationService()
{
    if (!dir.Ok()) {
        error = "cannot create a temporary directory";
        return;
    }
    certificates = std::make_unique<TestSupport::TestCertificates>(dir.Path());
    if (!certificates->Ok()) {
        error = "certificates: " + certificates->Error();
        return;
    }
    SetToken("token-1");
    Restart();
}

FakeVerificationService::~FakeVerificationService() = default;

void FakeVerificationService::Restart()
{
    if (certificates == nullptr || !certificates->Ok()) {
        return;
    }
    server.reset();
    server = std::make_unique<TestSupport::HttpsTestServer>(certificates->ServerCertFile(),
                                                            certificates->ServerKeyFile());
    std::string startError;
    if (!server->Start(startError)) {
        error = "server: " + startError;
        return;
    }
    Configure();
}

void FakeVerificationService::Configure()
{
    Framework::ConfigManager* config = Framework::ConfigManager::GetInstance();
    config->Set("agent.id", kAgentId);
    config->Set("service.address", server->Address());
    config->Set("service.ca_file", certificates->CaFile());
    config->Set("service.auth_token_file", dir.File("token"));
    config->Set("service.connect_timeout", "2");
    config->Set("service.read_timeout", std::to_string(kReadTimeoutSeconds));
    // A context built for another run's CA must not be reused.
    SDK::HttpUtils::GetInstance()->Reset();
}

void FakeVerificationService::SetToken(const std::string& token)
{
    dir.Write("token", token + "\n", 0600);
}

void FakeVerificationService::QueueCommList(const std::vector<std::string>& entries)
{
    QueueCommListAnswer(200, CommListJson(entries));
}

void FakeVerificationService::QueueCommListAnswer(int status, const std::string& body)
{
    TestSupport::ScriptedAnswer answer;
    answer.status = status;
    answer.body = body;
    server->Queue(kCommListPath, answer);
}

void FakeVerificationService::QueueCodeAnswer(int status, const std::string& body)
{
    TestSupport::ScriptedAnswer answer;
    answer.status = status;
    answer.body = body;
    server->Queue(kCodePath, answer);
}

std::string Sha256Hex(const std::string& text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return std::string();
    }
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof(pair), "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

std::string CommListJson(const std::vector<std::string>& entries, const std::string& extraMembers)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& entry : entries) {
        list.append(entry);
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    std::string json = "{\"comm_list\":" + Json::writeString(writer, list);
    if (!extraMembers.empty()) {
        json += "," + extraMembers;
    }
    return json + "}";
}

} // namespace TfaTest
