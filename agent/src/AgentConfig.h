#pragma once

#include <string>

#include "AgentSettings.h"

namespace Agent {

/// Reads the agent's configuration file into AgentSettings.
///
/// The keys shared with the modules (agent.id, service.*, log.*) are loaded
/// and checked by Framework::ConfigManager, which stays the process-wide
/// source the modules read. The host's own keys are checked here, against
/// one table per section kind:
///
///   agent.module_dir     absolute path, default <installation_path>lib/modules/
///   agent.pid_file       absolute path, default /run/brackmoor-agent.pid
///   [policy.NAME]        one section per policy feed, at least one:
///     file               absolute path of the policy document (required)
///     module             Framework::Module::name() of the module fed (required)
///     callback           the module's policy callback id (required)
///     feature            feature name passed with the document (required)
class AgentConfig {
public:
    static constexpr const char* kDefaultPidFile = "/run/brackmoor-agent.pid";
    static constexpr const char* kDefaultStateDir = "/var/lib/brackmoor";

    /// Loads `path`. A non-empty `policyOverride` replaces the file of the
    /// first feed. False with `error` as one line "<file>: <what> <key>"
    /// when the file is missing, malformed, or a key is missing or bad.
    static bool Load(const std::string& path, const std::string& policyOverride, AgentSettings& settings,
                     std::string& error);
};

} // namespace Agent
