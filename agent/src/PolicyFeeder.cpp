#include "PolicyFeeder.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "AgentLog.h"
#include "FileTrust.h"
#include "Framework/Module.h"
#include "ModuleHost.h"
#include "SDK/FileUtils.h"

namespace Agent {

namespace {

std::string Describe(const PolicyFeed& feed)
{
    return "Policy(" + feed.name + ") from " + feed.file;
}

} // namespace

PolicyFeeder::PolicyFeeder(std::vector<PolicyFeed> policyFeeds)
{
    for (PolicyFeed& feed : policyFeeds) {
        FeedState state;
        state.feed = std::move(feed);
        feeds.push_back(std::move(state));
    }
}

std::vector<DeliveryResult> PolicyFeeder::Deliver(const ModuleHost& host, bool onlyChanged)
{
    std::vector<DeliveryResult> results;
    for (FeedState& state : feeds) {
        results.push_back(DeliverOne(host, state, onlyChanged));
    }
    return results;
}

DeliveryResult PolicyFeeder::DeliverOne(const ModuleHost& host, FeedState& state, bool onlyChanged)
{
    const PolicyFeed& feed = state.feed;
    const std::string why = FileTrust::WhyUntrusted(feed.file, false);
    if (!why.empty() && access(feed.file.c_str(), F_OK) == 0) {
        AGENT_LOG_ERROR(Describe(feed) + " not read: " + why + "; the policy in force stays.");
        return DeliveryResult::Untrusted;
    }
    std::string content;
    if (SDK::FileUtils::ReadFile(feed.file, content, kMaxPolicyBytes) != 0) {
        AGENT_LOG_ERROR(Describe(feed) + " cannot be read: " + std::strerror(errno) +
                        "; the policy in force stays.");
        return DeliveryResult::Unreadable;
    }
    if (onlyChanged && state.delivered && content == state.lastContent) {
        AGENT_LOG_INFO(Describe(feed) + " is unchanged; not pushed again.");
        return DeliveryResult::Unchanged;
    }
    Framework::Module* module = host.Find(feed.module);
    if (module == nullptr) {
        AGENT_LOG_ERROR(Describe(feed) + " not pushed: module " + feed.module + " is not loaded.");
        return DeliveryResult::NoModule;
    }

    int result = 1;
    Framework::Policy* current = nullptr;
    try {
        result = module->RefreshPolicy(feed.callback, feed.feature, content, current);
    } catch (const std::exception& e) {
        AGENT_LOG_ERROR(Describe(feed) + ": RefreshPolicy of module " + feed.module + " threw: " + e.what() + ".");
        return DeliveryResult::Failed;
    } catch (...) {
        AGENT_LOG_ERROR(Describe(feed) + ": RefreshPolicy of module " + feed.module + " threw.");
        return DeliveryResult::Failed;
    }

    const std::string target = " (module " + feed.module + ", callback " + feed.callback + ", feature " +
                               feed.feature + ")";
    switch (result) {
    case 0:
        state.delivered = true;
        state.lastContent = content;
        AGENT_LOG_INFO(Describe(feed) + " accepted" + target + ".");
        return DeliveryResult::Accepted;
    case -2:
        state.delivered = true;
        state.lastContent = content;
        AGENT_LOG_WARNING(Describe(feed) + " rejected" + target + "; the policy in force stays.");
        return DeliveryResult::Rejected;
    case -1:
        AGENT_LOG_ERROR(Describe(feed) + " not pushed: no policy callback" + target + ".");
        return DeliveryResult::UnknownCallback;
    default:
        AGENT_LOG_ERROR(Describe(feed) + ": RefreshPolicy returned " + std::to_string(result) + target + ".");
        return DeliveryResult::Failed;
    }
}

} // namespace Agent
