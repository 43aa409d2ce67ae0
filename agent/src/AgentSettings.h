#pragma once

#include <string>
#include <vector>

namespace Agent {

/// One policy feed: a JSON file whose content the agent pushes to one
/// module's policy callback under one feature name. Feeds come from the
/// configuration's [policy.NAME] sections, so a further module needs no code.
struct PolicyFeed {
    std::string name;      ///< NAME of the [policy.NAME] section
    std::string file;      ///< the policy document
    std::string module;    ///< Framework::Module::name() of the module fed
    std::string callback;  ///< policy callback id registered by that module
    std::string feature;   ///< feature name passed with the document
};

/// Everything the host process needs from its configuration file, validated.
struct AgentSettings {
    std::string configPath;
    std::string installationPath;  ///< ends with "/"
    std::string moduleDir;         ///< every *.so in it is loaded
    std::string pidFile;           ///< holds the single-instance lock
    std::string stateDir;          ///< the activation journal (ActivationJournal)
    std::string logDir;
    std::string logLevel;
    std::vector<PolicyFeed> feeds;  ///< in the order of their sections
};

} // namespace Agent
