#include "Host.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>
#include <thread>

#include "ActivationJournal.h"
#include "AgentConfig.h"
#include "AgentLog.h"
#include "ModuleHost.h"
#include "PidFile.h"
#include "PolicyFeeder.h"
#include "SDK/LoggerUtils.h"
#include "SignalWaiter.h"

namespace Agent {

namespace {

// How often the shut-down looks for further signals while the modules stop.
constexpr std::chrono::milliseconds kShutDownPoll(100);

std::string SignalName(int number)
{
    const char* name = sigabbrev_np(number);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(number);
}

/// Whether SIGTERM or SIGINT arrived while the agent was starting; takes
/// every pending signal (a pending SIGHUP asks for what start-up does anyway).
bool TerminationPending()
{
    int number = 0;
    for (;;) {
        const AgentSignal pending = SignalWaiter::WaitFor(std::chrono::milliseconds(0), number);
        if (pending == AgentSignal::None) {
            return false;
        }
        if (pending == AgentSignal::Terminate) {
            AGENT_LOG_INFO(SignalName(number) + " received while starting; shutting down.");
            return true;
        }
    }
}

/// Serves SIGHUP until SIGTERM or SIGINT arrives.
void ServeSignals(const ModuleHost& host, PolicyFeeder& feeder)
{
    for (;;) {
        int number = 0;
        if (SignalWaiter::Wait(number) == AgentSignal::Terminate) {
            AGENT_LOG_INFO(SignalName(number) + " received; shutting down.");
            return;
        }
        AGENT_LOG_INFO(SignalName(number) + " received; re-reading the policy files.");
        feeder.Deliver(host, true);
    }
}

/// Unloads the modules, which restore the system's configuration as they
/// stop. That must run to its end: signals arriving meanwhile are logged and
/// ignored, so an impatient second SIGTERM cannot cut a restore short.
void ShutDown(ModuleHost& host)
{
    std::atomic<bool> done(false);
    std::thread stopper;
    try {
        stopper = std::thread([&host, &done] {
            host.UnloadAll();
            done = true;
        });
    } catch (const std::exception&) {
        host.UnloadAll();  // no thread to spare: stop on this one; signals stay pending meanwhile
        return;
    }
    while (!done) {
        int number = 0;
        if (SignalWaiter::WaitFor(kShutDownPoll, number) != AgentSignal::None) {
            AGENT_LOG_WARNING(SignalName(number) + " received during shut-down; ignored until the modules "
                                                   "have restored the configuration.");
        }
    }
    stopper.join();
}

} // namespace

void Host::PrintError(const std::string& text)
{
    std::cerr << "brackmoor-agent: " << text << std::endl;
}

int Host::Run(const CommandLine& options)
{
    // First of all: every thread created from here on inherits the mask.
    if (!SignalWaiter::BlockAgentSignals()) {
        PrintError("cannot set up signal handling");
        return kExitFailure;
    }
    AgentSettings settings;
    std::string error;
    if (!AgentConfig::Load(options.configPath, options.policyPath, settings, error)) {
        PrintError(error);
        return kExitConfigError;
    }
    PidFile pidFile;
    if (!pidFile.Acquire(settings.pidFile, error)) {
        PrintError(error);
        return kExitFailure;
    }
    if (SDK::LoggerUtils::GetInstance()->Configure(settings.logDir, settings.logLevel, options.foreground) != 0) {
        PrintError("log directory " + settings.logDir + " cannot be used");
        return kExitFailure;
    }
    AGENT_LOG_INFO(std::string("brackmoor-agent ") + BRACKMOOR_VERSION + " starting (pid " +
                   std::to_string(getpid()) + ", configuration " + settings.configPath + ").");

    ActivationJournal journal(settings.stateDir);
    if (!journal.Open(error)) {
        AGENT_LOG_ERROR(error + "; not starting.");
        PrintError(error);
        return kExitFailure;
    }

    ModuleHost host;
    host.LoadDirectory(settings.moduleDir);
    PolicyFeeder feeder(settings.feeds, &journal);
    // Asked to stop meanwhile: switch nothing on only to switch it off again.
    if (!TerminationPending()) {
        feeder.RecoverUncleanStop(host);
        feeder.Deliver(host, false);
        // Notice: the moment every policy has been pushed is worth a record
        // also where routine progress is not logged.
        AGENT_LOG_NOTICE("brackmoor-agent running.");
        ServeSignals(host, feeder);
    }
    ShutDown(host);
    feeder.ForgetAfterCleanStop();
    AGENT_LOG_NOTICE("brackmoor-agent stopped.");
    SDK::LoggerUtils::GetInstance()->Flush();
    return kExitOk;
}

} // namespace Agent
