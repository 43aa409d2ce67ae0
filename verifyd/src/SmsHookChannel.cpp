#include "SmsHookChannel.h"

#include "CommandRunner.h"

namespace brackmoor::verifyd {
namespace {

std::string MaskDigits(std::string text)
{
    for (char& c : text) {
        if (c >= '0' && c <= '9') {
            c = '#';
        }
    }
    return text;
}

std::string Describe(const CommandResult& result)
{
    switch (result.outcome) {
    case CommandResult::Outcome::Exited:
        return "exited with " + std::to_string(result.status);
    case CommandResult::Outcome::Signalled:
        return "killed by signal " + std::to_string(result.status);
    case CommandResult::Outcome::TimedOut:
        return "timed out and was killed";
    case CommandResult::Outcome::NotStarted:
        return "could not be started";
    }
    return "failed";
}

} // namespace

bool SmsHookChannel::Deliver(const Message& message, std::string& error)
{
    const CommandResult result = RunCommand({command, message.to, message.text}, timeout);
    if (result.Succeeded()) {
        return true;
    }
    error = command + " " + Describe(result);
    if (!result.output.empty()) {
        error += ": " + MaskDigits(result.output);
    }
    return false;
}

} // namespace brackmoor::verifyd
