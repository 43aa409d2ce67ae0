#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "SDK/JsonUtils.h"
#include "VerifydHarness.h"

namespace verifyd_test {

/// Contacts as the operator registered them, and as users type them at the login prompt.
const std::vector<std::string> kRegistered = {"+49 151 1234-5678", "Alice@Example.org"};
const std::vector<std::string> kTyped = {"0049 (151) 12345678", " alice@EXAMPLE.org"};

/// The body the agent sends: {"random_num": N} rendered by the SDK.
inline std::string CodeBody(int reference)
{
    Json::Value body(Json::objectValue);
    body["random_num"] = reference;
    return SDK::JsonUtils::JsonToString(body);
}

/// The service (with `extraConfig`) and one agent, "web-01", with kRegistered.
class ServiceTest : public ::testing::Test {
protected:
    explicit ServiceTest(const std::string& extraConfig = "") : service(extraConfig) {}

    void SetUp() override
    {
        ASSERT_EQ(service.Error(), "");
        token = service.AddAgent("web-01", kRegistered);
        ASSERT_FALSE(token.empty());
    }

    Reply List(const std::string& withToken)
    {
        return service.Call("GET", "/tfa_phone_num", Agent(), {{"X-Auth-Token", withToken}});
    }
    Reply List() { return List(token); }
    /// The code request exactly as the agent sends it.
    Reply RequestCode(int reference = 4711)
    {
        return service.Call("POST", "/tfa_code", Agent(), CodeHeaders(), CodeBody(reference));
    }
    static Params Agent(const std::string& id = "web-01") { return {{"agent_id", id}}; }
    Params CodeHeaders() const
    {
        return {{"X-Auth-Token", token},
                {"Content-Type", "application/json; charset=utf-8"},
                {"Accept-Type", "application/json; charset=utf-8"}};
    }
    /// A list request as raw HTTP/1.1 with `withToken`.
    static std::string RawList(const std::string& withToken)
    {
        return "GET /tfa_phone_num?agent_id=web-01 HTTP/1.1\r\nHost: localhost\r\nX-Auth-Token: " +
               withToken + "\r\n\r\n";
    }

    VerifydHarness service;
    std::string token;
};

} // namespace verifyd_test
