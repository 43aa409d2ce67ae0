// brackmoor-agent: hosts the agent's modules, or reports the second factor's state.

#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Host.h"
#include "status/StatusCommand.h"

int main(int argc, char** argv)
{
    try {
        const std::vector<std::string> args(argv + 1, argv + argc);
        const Agent::CommandLine options = Agent::CommandLine::Parse(args);
        switch (options.command) {
        case Agent::Command::Help:
            std::cout << Agent::CommandLine::Usage();
            return Agent::kExitOk;
        case Agent::Command::Version:
            std::cout << "brackmoor-agent " << BRACKMOOR_VERSION << std::endl;
            return Agent::kExitOk;
        case Agent::Command::Invalid:
            Agent::Host::PrintError(options.error + " (see --help)");
            return Agent::kExitConfigError;
        case Agent::Command::Status:
            return Agent::StatusCommand::Run(options, std::cout);
        case Agent::Command::Run:
            return Agent::Host::Run(options);
        }
    } catch (const std::exception& e) {
        Agent::Host::PrintError(std::string("unexpected error: ") + e.what());
    } catch (...) {
        Agent::Host::PrintError("unexpected error");
    }
    return Agent::kExitFailure;
}
