#include <gtest/gtest.h>

#include "ServiceConfig.h"
#include "TestSupport/TempDir.h"

namespace brackmoor::verifyd {
namespace {

const std::string kMinimal = "[tls]\ncertificate = c.pem\nprivate_key = k.pem\n";

TEST(ServiceConfig, KeysAreReadWithPathsRelativeToTheFileAndBadFilesAreRefusedNamingTheKey)
{
    TestSupport::TempDir dir;
    ServiceConfig config;
    std::string error;
    const std::string good = kMinimal + "[server]\ntrusted_proxies = 10.0.0.7, ::1\n[sms]\ncommand = sms\n";
    ASSERT_TRUE(LoadServiceConfig(dir.Write("v.ini", good), config, error)) << error;
    EXPECT_EQ(config.listenAddress, "127.0.0.1") << "only loopback unless configured";
    EXPECT_EQ(config.trustedProxies, (std::set<std::string>{"10.0.0.7", "::1"}));
    EXPECT_EQ(config.smsCommand, dir.File("sms"));

    const struct {
        std::string text;
        std::string mentioned;
    } cases[] = {
        {"[tls]\nprivate_key = k.pem\n", "tls.certificate"},
        {kMinimal + "[server]\nport = 70000\n", "server.port"},
        {kMinimal + "[server]\nport = 84x3\n", "server.port"},
        {kMinimal + "[server]\nthread = 4\n", "server.thread: unknown key"},
        {kMinimal + "[server]\ntrusted_proxies = 10.0.0.1 proxy\n", "not an IP address: proxy"},
        {kMinimal + "[database]\npath = v.db\nurl = postgresql://h/v\n", "set either"},
        {kMinimal + "[database]\nurl = mysql://h/v\n", "database.url"},
        {kMinimal + "[database]\nurl = postgresql://h\n", "must name one database"},
        {kMinimal + "[database]\nurl = postgresql://u:p%20w@h/v\n", "password must not contain"},
        {kMinimal + "[smtp]\nhost = mx.local\n", "smtp.from"},
        {kMinimal + "[log]\nlevel = loud\n", "log.level"},
    };
    for (const auto& c : cases) {
        ServiceConfig fresh;
        EXPECT_FALSE(LoadServiceConfig(dir.Write("bad.ini", c.text), fresh, error)) << c.text;
        EXPECT_NE(error.find(c.mentioned), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
        EXPECT_EQ(error.find("p w"), std::string::npos) << "never the password: " << error;
    }
    EXPECT_FALSE(LoadServiceConfig(dir.File("missing.ini"), config, error));
    EXPECT_NE(error.find("missing.ini"), std::string::npos);
}

} // namespace
} // namespace brackmoor::verifyd
