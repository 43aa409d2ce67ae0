#pragma once

#include <string>
#include <vector>

#include "AgentSettings.h"

namespace Agent {

class ModuleHost;

/// What became of one feed at one delivery.
enum class DeliveryResult {
    Accepted,         ///< the module accepted the document; it is in force
    Unchanged,        ///< same content as at the last delivery; not pushed again
    Rejected,         ///< the module's callback refused it; the policy in force stays
    UnknownCallback,  ///< the module has no callback under the feed's id
    NoModule,         ///< no loaded module has the feed's module name
    Unreadable,       ///< the policy file could not be read; nothing pushed
    Untrusted,        ///< others than root could have written the file; not read
    Failed,           ///< RefreshPolicy threw or gave an unknown result
};

/// Pushes the policy files to their modules through
/// Framework::Module::RefreshPolicy, remembering what each feed last pushed
/// so that a reload only pushes documents whose content changed. A rejected
/// document counts as pushed: the same text would be rejected again.
class PolicyFeeder {
public:
    /// Largest policy document read; a larger file is not pushed.
    static constexpr long kMaxPolicyBytes = 1024 * 1024;

    explicit PolicyFeeder(std::vector<PolicyFeed> policyFeeds);

    /// Delivers every feed (in configuration order) to the modules of
    /// `host`; with `onlyChanged` a feed whose file content equals the one
    /// delivered last is skipped. One result per feed, in the same order.
    std::vector<DeliveryResult> Deliver(const ModuleHost& host, bool onlyChanged);

private:
    struct FeedState {
        PolicyFeed feed;
        bool delivered = false;   ///< `lastContent` reached the module once
        std::string lastContent;
    };

    DeliveryResult DeliverOne(const ModuleHost& host, FeedState& state, bool onlyChanged);

    std::vector<FeedState> feeds;
};

} // namespace Agent
