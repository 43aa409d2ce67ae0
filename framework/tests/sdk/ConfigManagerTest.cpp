#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "SDK/PathUtils.h"
#include "TestSupport/TempDir.h"

namespace {

using Framework::ConfigManager;

const std::string kValid =
    "; agent configuration\n"
    "[agent]\n"
    "id = agent-1\n"
    "\n"
    "[service]\n"
    "# the verification service\n"
    "address = verify.example:8443\n"
    "ca_file = /etc/brackmoor/ca.pem\n"
    "auth_token_file = /etc/brackmoor/token\n";

/// kValid without the line that starts with `key`, plus `extra` at the end.
std::string Variant(const std::string& key, const std::string& extra = "")
{
    std::string text = kValid;
    if (!key.empty()) {
        const std::string::size_type at = text.find(key);
        text.erase(at, text.find('\n', at) + 1 - at);
    }
    return text + extra;
}

class ConfigManagerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.Ok()); }

    /// Loads `text` from a file; the error message with the file name cut off.
    std::string LoadError(const std::string& text)
    {
        const std::string path = dir.Write("agent.ini", text);
        std::string error;
        if (ConfigManager::GetInstance()->Load(path, error) == 0) {
            return "loaded";
        }
        EXPECT_EQ(0u, error.find(path + ": ")) << error;
        return error.substr(path.size() + 2);
    }

    TestSupport::TempDir dir;
};

TEST_F(ConfigManagerTest, EveryMissingOrBadKeyIsNamed)
{
    struct Case {
        std::string text;
        std::string error;
    } cases[] = {
        {kValid, "loaded"},
        {Variant("id ="), "missing key agent.id"},
        {Variant("address ="), "missing key service.address"},
        {Variant("ca_file ="), "missing key service.ca_file"},
        {Variant("auth_token_file ="), "missing key service.auth_token_file"},
        {Variant("id =", "[agent]\nid =\n"), "missing key agent.id"},
        {Variant("", "read_timeout = abc\n"), "bad value for service.read_timeout: 'abc' (1..24)"},
        {Variant("", "read_timeout = 0\n"), "bad value for service.read_timeout: '0' (1..24)"},
        {Variant("", "read_timeout = 25\n"), "bad value for service.read_timeout: '25' (1..24)"},
        {Variant("", "read_timeout = 20\n"), "loaded"},
        {Variant("", "read_timeout = 20\nconnect_timeout = 6\n"),
         "bad value for service.connect_timeout + service.read_timeout: 26 s (at most 25)"},
        {Variant("", "connect_timeout = 10s\n"), "bad value for service.connect_timeout: '10s' (1..24)"},
        {Variant("", "proxy_host = proxy:8080\n"), "bad value for service.proxy_host: 'proxy:8080' (host name or IPv4 address)"},
        {Variant("", "proxy_port = 70000\n"), "bad value for service.proxy_port: '70000' (1..65535)"},
        {Variant("address =", "address = verify.example:0\n"), "bad value for service.address: 'verify.example:0' (host[:port])"},
        {Variant("address =", "address = https://verify.example\n"), "bad value for service.address: 'https://verify.example' (host[:port])"},
        {Variant("address =", "address = ::1\n"), "bad value for service.address: '::1' (host[:port])"},
        {Variant("address =", "address = [::1]:8443\n"), "loaded"},
        {Variant("ca_file =", "ca_file = ca.pem\n"), "bad value for service.ca_file: 'ca.pem' (absolute path)"},
        {Variant("", "[agent]\ninstallation_path = opt\n"), "bad value for agent.installation_path: 'opt' (absolute path)"},
        {Variant("", "[log]\nlevel = loud\n"), "bad value for log.level: 'loud' (fatal..trace or 1..8)"},
        {Variant("", "[log]\nlevel = 7\ndir = /var/log/x\n"), "loaded"},
        {Variant("", "just words\n"), "malformed: line 10: expected key = value"},
        {"[agent\nid = x\n", "malformed: line 1: expected [section]"},
        {"= value\n", "malformed: line 1: expected key = value"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.error, LoadError(c.text)) << c.text;
    }
}

TEST_F(ConfigManagerTest, LoadedValuesDefaultsAndAFailedLoadKeepsThem)
{
    ASSERT_EQ("loaded", LoadError(Variant("", "proxy_host = proxy.example\n")));
    ConfigManager* config = ConfigManager::GetInstance();
    EXPECT_EQ("agent-1", config->GetAgentId());
    EXPECT_EQ("verify.example:8443", config->GetServiceAddress());
    EXPECT_EQ("/etc/brackmoor/ca.pem", config->GetCaFile());
    EXPECT_EQ("/etc/brackmoor/token", config->GetAuthTokenFile());
    EXPECT_EQ("/opt/brackmoor/", config->GetInstallationPath());
    EXPECT_EQ("proxy.example", config->GetProxyHost());
    EXPECT_EQ("/var/log/brackmoor", config->GetLogDir());
    EXPECT_EQ("information", config->GetLogLevel());
    EXPECT_EQ(5, config->GetConnectTimeout());
    EXPECT_EQ(5, config->GetReadTimeout());
    EXPECT_EQ(3128, config->GetProxyPort());

    EXPECT_EQ("missing key agent.id", LoadError(Variant("id =")));
    std::string error;
    EXPECT_NE(0, config->Load(dir.File("absent.ini"), error));
    EXPECT_EQ(dir.File("absent.ini") + ": cannot read: No such file or directory", error);
    EXPECT_EQ("agent-1", config->GetAgentId());
    EXPECT_EQ(dir.File("agent.ini"), config->GetConfigPath());

    config->Set("service.read_timeout", "abc");
    EXPECT_EQ(5, config->GetReadTimeout()) << "an unusable value falls back to the default";
    config->Set("agent.installation_path", "/srv/agent");
    std::string installation;
    ASSERT_EQ(0, SDK::PathUtils::GetInstallationPath(installation));
    EXPECT_EQ("/srv/agent/", installation) << "scripts and modules are found below it";
}

TEST_F(ConfigManagerTest, AuthTokenIsTheTrimmedFirstLine)
{
    ConfigManager::GetInstance()->Set("service.auth_token_file",
                                      dir.Write("token", "  first-token \r\nsecond line\n", 0600));
    EXPECT_EQ("first-token", Framework::CommAuthManager::GetInstance()->GetAuthToken());
}

} // namespace
