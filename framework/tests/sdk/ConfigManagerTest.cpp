#include <gtest/gtest.h>

#include "Framework/ConfigManager.h"
#include "TestSupport/TempDir.h"

// Missing keys, unreadable files and most faults are proven through the
// agent's configuration suite; here are the bounds of each value.

namespace {

using Framework::ConfigManager;

const std::string kValid = "; agent configuration\n[agent]\nid = agent-1\n\n[service]\n# the service\n"
                           "address = verify.example:8443\nca_file = /etc/brackmoor/ca.pem\n"
                           "auth_token_file = /etc/brackmoor/token\n";

/// Loads `text` from dir/agent.ini: "loaded", or the error without its "<file>: ".
std::string Load(const TestSupport::TempDir& dir, const std::string& text)
{
    const std::string path = dir.Write("agent.ini", text);
    std::string error;
    if (ConfigManager::GetInstance()->Load(path, error) == 0) {
        return "loaded";
    }
    EXPECT_EQ(0u, error.find(path + ": ")) << error;
    return error.substr(path.size() + 2);
}

TEST(ConfigManagerTest, EveryBadValueIsNamedWithItsBounds)
{
    TestSupport::TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {"read_timeout = 0\n", "bad value for service.read_timeout: '0' (1..24)"},
        {"read_timeout = 25\n", "bad value for service.read_timeout: '25' (1..24)"},
        {"read_timeout = 20\n", "loaded"},
        {"read_timeout = 20\nconnect_timeout = 6\n",
         "bad value for service.connect_timeout + service.read_timeout: 26 s (at most 25)"},
        {"connect_timeout = 10s\n", "bad value for service.connect_timeout: '10s' (1..24)"},
        {"proxy_host = proxy:8080\n", "bad value for service.proxy_host: 'proxy:8080' (host name or IPv4 address)"},
        {"proxy_port = 70000\n", "bad value for service.proxy_port: '70000' (1..65535)"},
        {"address = verify.example:0\n", "bad value for service.address: 'verify.example:0' (host[:port])"},
        {"address = https://verify.example\n", "bad value for service.address: 'https://verify.example' (host[:port])"},
        {"address = ::1\n", "bad value for service.address: '::1' (host[:port])"},
        {"address = [::1]:8443\n", "loaded"},
        {"ca_file = ca.pem\n", "bad value for service.ca_file: 'ca.pem' (absolute path)"},
        {"[log]\nlevel = loud\n", "bad value for log.level: 'loud' (fatal..trace or 1..8)"},
        {"[log]\nlevel = 7\ndir = /var/log/x\n", "loaded"},
        {"[agent\nid = x\n", "malformed: line 10: expected [section]"},
        {"= value\n", "malformed: line 10: expected key = value"},
    };
    for (const auto& c : cases) {
        // A later line of the same key wins, so each case overrides the valid file.
        EXPECT_EQ(c.second, Load(dir, kValid + c.first)) << c.first;
    }
}

TEST(ConfigManagerTest, TheAuthTokenIsTheTrimmedFirstLine)
{
    TestSupport::TempDir dir;
    ASSERT_EQ("loaded", Load(dir, kValid + "auth_token_file = " + dir.Write("token", "  tok \r\nsecond\n", 0600)));
    EXPECT_EQ("tok", Framework::CommAuthManager::GetInstance()->GetAuthToken());
}

} // namespace
