#include "VerifydHarness.h"

#include <algorithm>
#include <sstream>

#include <Poco/DirectoryIterator.h>

#include "AdminCommand.h"
#include "Framework/ConfigManager.h"
#include "SDK/CryptoCodeUtils.h"
#include "SDK/HttpUtils.h"
#include "SDK/JsonUtils.h"
#include "ServiceConfig.h"
#include "brackmoor/Contact.h"

namespace verifyd_test {
namespace {

Reply Finish(int status, std::string body, std::map<std::string, std::string> headers)
{
    Reply reply;
    reply.status = status;
    reply.body = std::move(body);
    reply.headers = std::move(headers);
    if (SDK::JsonUtils::ParseJsonStr(reply.body.data(), reply.body.size(), reply.json) != 0) {
        reply.json = Json::Value();
    }
    return reply;
}

} // namespace

VerifydHarness::VerifydHarness(const std::string& extraConfig)
{
    if (!dir.Ok()) {
        error = "no temporary directory";
        return;
    }
    certificates = std::make_unique<TestSupport::TestCertificates>(dir.Path());
    if (!certificates->Ok()) {
        error = certificates->Error();
        return;
    }
    dir.Write("verifyd.ini", "[server]\nport = 0\nthreads = 8\n"
                             "[tls]\ncertificate = server.pem\nprivate_key = server.key\n"
                             "[database]\npath = verifyd.db\n"
                             "[outbox]\ndirectory = outbox\n" +
                                 extraConfig);
    brackmoor::verifyd::ServiceConfig config;
    if (!brackmoor::verifyd::LoadServiceConfig(ConfigFile(), config, error)) {
        return;
    }
    service = brackmoor::verifyd::Service::Create(config, error);
    if (!service) {
        return;
    }
    service->Start();
    Framework::ConfigManager* agent = Framework::ConfigManager::GetInstance();
    agent->Set("service.address", "localhost:" + std::to_string(service->Port()));
    agent->Set("service.ca_file", certificates->CaFile());
}

VerifydHarness::~VerifydHarness()
{
    if (service) {
        service->Stop();
    }
}

std::string VerifydHarness::AddAgent(const std::string& id,
                                     const std::vector<std::string>& contacts)
{
    std::ostringstream out;
    std::ostringstream err;
    brackmoor::verifyd::AdminCommand admin(service->Store(), out, err);
    if (admin.Run({"agent", "add", id}) != 0) {
        return "";
    }
    for (const std::string& contact : contacts) {
        if (admin.Run({"contact", "add", id, contact}) != 0) {
            return "";
        }
    }
    std::string token = out.str();
    token.erase(token.find_last_not_of('\n') + 1);
    return token;
}

Reply VerifydHarness::Get(const std::string& path, const std::map<std::string, std::string>& params,
                          const std::map<std::string, std::string>& headers)
{
    std::map<std::string, std::string> responseHeaders;
    std::string body;
    const int status = SDK::HttpUtils::GetInstance()->Get("https://SERVICE_ADDRESS" + path, params,
                                                          headers, responseHeaders, body, 200);
    return Finish(status, body, responseHeaders);
}

Reply VerifydHarness::Post(const std::string& path,
                           const std::map<std::string, std::string>& params,
                           const std::map<std::string, std::string>& headers,
                           const std::string& body)
{
    std::map<std::string, std::string> responseHeaders;
    std::string responseBody;
    const int status = SDK::HttpUtils::GetInstance()->Post(
        "https://SERVICE_ADDRESS" + path, params, headers, body, responseHeaders, responseBody, 200);
    return Finish(status, responseBody, responseHeaders);
}

std::vector<std::string> VerifydHarness::OutboxFiles() const
{
    std::vector<std::string> names;
    for (Poco::DirectoryIterator it(dir.File("outbox")), end; it != end; ++it) {
        if (it.name().front() != '.') {
            names.push_back(it.name());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string VerifydHarness::NewestOutboxMessage() const
{
    const std::vector<std::string> names = OutboxFiles();
    return names.empty() ? "" : TestSupport::ReadWholeFile(dir.File("outbox/" + names.back()));
}

std::string AgentSideHash(const std::string& typed)
{
    std::string hash;
    SDK::CryptoCodeUtils::GetStrSha256(brackmoor::NormalizeContact(typed), hash, 10240);
    return hash;
}

} // namespace verifyd_test
