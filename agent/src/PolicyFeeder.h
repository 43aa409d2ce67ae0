#pragma once

#include <string>
#include <vector>

#include "AgentSettings.h"

namespace Framework {
class Module;
}

namespace Agent {

class ActivationJournal;
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
///
/// With a journal, every document is recorded before it is pushed and the
/// record follows what the module runs with, so that a start after an
/// unclean stop can bring the module back to a known state.
class PolicyFeeder {
public:
    /// Largest policy document read; a larger file is not pushed.
    static constexpr long kMaxPolicyBytes = 1024 * 1024;

    explicit PolicyFeeder(std::vector<PolicyFeed> policyFeeds, ActivationJournal* journal = nullptr);

    /// Delivers every feed (in configuration order) to the modules of
    /// `host`; with `onlyChanged` a feed whose file content equals the one
    /// delivered last is skipped. One result per feed, in the same order.
    std::vector<DeliveryResult> Deliver(const ModuleHost& host, bool onlyChanged);

    /// For every feed that the journal says was in force when the earlier
    /// run ended without stopping its module: pushes that document again (or,
    /// when the module refuses it now, the policy file's). Every accepted
    /// document restarts the module's task, so the delivery that follows
    /// stops it, and its stop restores what the earlier run left behind,
    /// before it starts again with the current policy.
    void RecoverUncleanStop(const ModuleHost& host);

    /// The modules have stopped cleanly: forgets the journal entries of the
    /// feeds this run pushed (a leftover of a feed never pushed stays).
    void ForgetAfterCleanStop();

private:
    struct FeedState {
        PolicyFeed feed;
        bool delivered = false;   ///< `lastContent` reached the module once
        std::string lastContent;
        bool inForce = false;     ///< the module accepted `inForceContent`
        std::string inForceContent;
        bool journaled = false;   ///< this run wrote the feed's journal entry
    };

    DeliveryResult DeliverOne(const ModuleHost& host, FeedState& state, bool onlyChanged);
    /// Reads the feed's policy file if it can be trusted; false (logged)
    /// with `failure` saying why not.
    bool ReadPolicy(const FeedState& state, std::string& content, DeliveryResult& failure) const;
    /// Journals `content`, pushes it to `module` and keeps the journal in
    /// step with the outcome.
    DeliveryResult Push(Framework::Module& module, FeedState& state, const std::string& content);

    std::vector<FeedState> feeds;
    ActivationJournal* journal;
};

} // namespace Agent
