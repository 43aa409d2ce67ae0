#include "PolicyFeeder.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "ActivationJournal.h"
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

/// RefreshPolicy with its outcome logged.
DeliveryResult Refresh(Framework::Module& module, const PolicyFeed& feed, const std::string& content)
{
    int result = 1;
    Framework::Policy* current = nullptr;
    try {
        result = module.RefreshPolicy(feed.callback, feed.feature, content, current);
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
        AGENT_LOG_INFO(Describe(feed) + " accepted" + target + ".");
        return DeliveryResult::Accepted;
    case -2:
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

} // namespace

PolicyFeeder::PolicyFeeder(std::vector<PolicyFeed> policyFeeds, ActivationJournal* activationJournal)
    : journal(activationJournal)
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

void PolicyFeeder::RecoverUncleanStop(const ModuleHost& host)
{
    for (FeedState& state : feeds) {
        std::string leftover;
        if (journal == nullptr || !journal->Leftover(state.feed.name, leftover)) {
            continue;
        }
        Framework::Module* module = host.Find(state.feed.module);
        if (module == nullptr) {
            AGENT_LOG_ERROR(Describe(state.feed) + ": the earlier run did not stop module " + state.feed.module +
                            ", which is not loaded now; what it left in place stays.");
            continue;
        }
        AGENT_LOG_WARNING(Describe(state.feed) + ": the earlier run did not stop its module; pushing the policy it ran "
                                                 "with, so that the module restores what was left before it starts "
                                                 "with the current policy.");
        if (Push(*module, state, leftover) == DeliveryResult::Accepted) {
            continue;
        }
        std::string current;
        DeliveryResult failure = DeliveryResult::Failed;
        if (!ReadPolicy(state, current, failure) || Push(*module, state, current) != DeliveryResult::Accepted) {
            AGENT_LOG_ERROR(Describe(state.feed) + ": the module takes neither the earlier nor the current policy; "
                                                   "what the earlier run left in place stays.");
        }
    }
}

void PolicyFeeder::ForgetAfterCleanStop()
{
    for (FeedState& state : feeds) {
        if (journal != nullptr && state.journaled) {
            journal->Forget(state.feed.name);
        }
    }
}

bool PolicyFeeder::ReadPolicy(const FeedState& state, std::string& content, DeliveryResult& failure) const
{
    const PolicyFeed& feed = state.feed;
    const std::string why = FileTrust::WhyUntrusted(feed.file, false);
    if (!why.empty() && access(feed.file.c_str(), F_OK) == 0) {
        AGENT_LOG_ERROR(Describe(feed) + " not read: " + why + "; the policy in force stays.");
        failure = DeliveryResult::Untrusted;
        return false;
    }
    if (SDK::FileUtils::ReadFile(feed.file, content, kMaxPolicyBytes) != 0) {
        AGENT_LOG_ERROR(Describe(feed) + " cannot be read: " + std::strerror(errno) +
                        "; the policy in force stays.");
        failure = DeliveryResult::Unreadable;
        return false;
    }
    return true;
}

DeliveryResult PolicyFeeder::DeliverOne(const ModuleHost& host, FeedState& state, bool onlyChanged)
{
    const PolicyFeed& feed = state.feed;
    std::string content;
    DeliveryResult failure = DeliveryResult::Failed;
    if (!ReadPolicy(state, content, failure)) {
        return failure;
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
    return Push(*module, state, content);
}

DeliveryResult PolicyFeeder::Push(Framework::Module& module, FeedState& state, const std::string& content)
{
    const PolicyFeed& feed = state.feed;
    // Recorded before the module can switch anything on: a kill from here
    // on leaves an entry that tells the next start what to restore.
    if (journal != nullptr) {
        if (!journal->Record(feed.name, content)) {
            AGENT_LOG_ERROR(Describe(feed) + " not pushed: the activation journal cannot be written: " +
                            std::strerror(errno) + "; the policy in force stays.");
            return DeliveryResult::Failed;
        }
        state.journaled = true;
    }
    const DeliveryResult result = Refresh(module, feed, content);
    if (result == DeliveryResult::Rejected || result == DeliveryResult::Accepted) {
        state.delivered = true;
        state.lastContent = content;
    }
    if (result == DeliveryResult::Accepted) {
        state.inForce = true;
        state.inForceContent = content;
    } else if (journal != nullptr) {
        // The module still runs with what it had, if anything.
        if (state.inForce) {
            journal->Record(feed.name, state.inForceContent);
        } else {
            journal->Forget(feed.name);
        }
    }
    return result;
}

} // namespace Agent
