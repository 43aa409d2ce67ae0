// Contact checks through the task's datagram socket, against the floor of
// the machine: a bare echo server over the same kind of socket and the same
// event loop, in the same run, with client and server pinned to the same
// processor and to different ones. Only same-run ratios mean anything on a
// shared virtual machine.
//
// Must run in a private network namespace (the task binds its one abstract
// name there):  tests/sandbox/sandbox-run build/bench/ipc/tfa_ipc_bench
//
// Options: --seconds S   measured time per server and round (default 1)
//          --rounds N    rounds, alternating echo and task (default 3)
//          --log-level L the module logger's level (default warning: the
//                        information records of each check are not written)

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <Poco/Logger.h>

#include "ContactCheckServer.h"
#include "EchoServer.h"
#include "Framework/ConfigManager.h"
#include "LatencyStats.h"
#include "LoadClient.h"
#include "Pinning.h"
#include "SDK/CryptoCodeUtils.h"
#include "TwoFactorAuthenticationLog.h"

using TfaBench::LatencyStats;

namespace {

struct Options {
    double seconds = 1.0;
    int rounds = 3;
    std::string logLevel = "warning";
};

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--seconds") {
            options.seconds = std::atof(argv[i + 1]);
        } else if (name == "--rounds") {
            options.rounds = std::atoi(argv[i + 1]);
        } else if (name == "--log-level") {
            options.logLevel = argv[i + 1];
        } else {
            return false;
        }
    }
    return argc % 2 == 1 && options.seconds > 0 && options.seconds <= 60 && options.rounds > 0 &&
           options.rounds <= 20;
}

// A fresh network namespace has the loopback interface only.
bool InPrivateNetworkNamespace()
{
    std::ifstream devices("/proc/net/dev");
    std::string line;
    int interfaces = 0;
    bool loopback = false;
    while (std::getline(devices, line)) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        const size_t start = line.find_first_not_of(' ');
        ++interfaces;
        loopback = loopback || line.compare(start, colon - start, "lo") == 0;
    }
    return interfaces == 1 && loopback;
}

// Log records, if the level lets any through, go to files in a scratch
// directory, as the agent writes them.
bool ConfigureLogging(const std::string& level)
{
    char directory[] = "/tmp/tfa-ipc-bench.XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        return false;
    }
    Framework::ConfigManager::GetInstance()->Set("log.dir", directory);
    Framework::ConfigManager::GetInstance()->Set("log.level", level);
    Poco::Logger* logger = Engine::TwoFactorAuthentication::GetLoggerPtr();
    if (logger == nullptr) {
        return false;
    }
    logger->setLevel(level);
    return true;
}

std::string Sha256(const std::string& text)
{
    std::string digest;
    SDK::CryptoCodeUtils::GetStrSha256(text, digest, 10240);
    return digest;
}

double HashNanosPerCall(const std::string& contact)
{
    const int calls = 200000;
    std::string digest;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) {
        SDK::CryptoCodeUtils::GetStrSha256(contact, digest, 10240);
    }
    const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
    return elapsed.count() / calls;
}

void PrintRow(const char* placement, const char* server, const LatencyStats& stats)
{
    std::printf("| %-9s | %-13s | %9.0f | %7.1f | %7.1f | %7.1f | %8zu |\n", placement, server, stats.Throughput(),
                stats.PercentileMicros(0.5), stats.PercentileMicros(0.99), stats.PercentileMicros(0.999),
                stats.Count());
}

struct Placement {
    const char* name;
    int clientCpu;
    int serverCpu;
};

/// Measures both servers with one placement, alternating them round by round.
bool MeasurePlacement(const Placement& placement, const Options& options, TfaBench::EchoServer& echo,
                      TfaBench::ContactCheckServer& checks, LatencyStats& echoStats, LatencyStats& checkStats)
{
    TfaBench::PinThread(pthread_self(), placement.clientCpu);
    if (!echo.Start(placement.serverCpu) || !checks.Start(placement.serverCpu)) {
        std::fprintf(stderr, "cannot pin the servers to processor %d\n", placement.serverCpu);
        return false;
    }
    TfaBench::LoadClient client;
    const std::string contactRequest = "1:13800000031";
    const std::string listed("1", 2);
    const struct sockaddr_un taskAddress = [] {
        struct sockaddr_un address;
        std::memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, "\0PAM_BRACKMOOR_IPC_SERVER", 26);
        return address;
    }();
    std::string error;
    bool ok = client.Ok();
    for (int round = 0; ok && round < options.rounds; ++round) {
        ok = client.Run(echo.Address(), echo.AddressLength(), contactRequest, contactRequest, options.seconds, 1000,
                        echoStats, error) &&
             client.Run(taskAddress, 28, contactRequest, listed, options.seconds, 1000, checkStats, error);
    }
    echo.Stop();
    checks.Stop();
    if (!ok) {
        std::fprintf(stderr, "load run failed: %s\n", error.c_str());
    }
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--seconds S (0-60]] [--rounds N (1-20)] [--log-level LEVEL]\n", argv[0]);
        return 2;
    }
    if (!InPrivateNetworkNamespace()) {
        std::fprintf(stderr, "run me in a private network namespace (tests/sandbox/sandbox-run or unshare --net)\n");
        return 77;
    }
    if (!ConfigureLogging(options.logLevel)) {
        std::fprintf(stderr, "cannot set up logging at level %s\n", options.logLevel.c_str());
        return 2;
    }

    // The longest list the task keeps, the probe contact last in it.
    std::vector<std::string> hashes;
    for (int i = 0; i < 32; ++i) {
        hashes.push_back(Sha256("138000000" + std::to_string(i)));
    }
    TfaBench::EchoServer echo;
    TfaBench::ContactCheckServer checks(hashes);
    if (!echo.Bind() || !checks.Bind()) {
        std::fprintf(stderr, "cannot bind the servers' abstract names\n");
        return 1;
    }

    const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    std::vector<Placement> placements = {{"same", 0, 0}};
    if (cpus > 1) {
        placements.push_back({"different", 0, 1});
    }
    std::printf("Contact checks (cached list of 32, probe last) vs echo floor; %d x %.1f s per server and "
                "placement; module log level %s; %ld processors\n\n",
                options.rounds, options.seconds, options.logLevel.c_str(), cpus);
    std::printf("| processor | server        |   req/s   | p50 us  | p99 us  | p99.9 us |  samples |\n");
    std::printf("|-----------|---------------|-----------|---------|---------|---------|----------|\n");
    std::vector<std::string> ratios;
    for (const Placement& placement : placements) {
        LatencyStats echoStats;
        LatencyStats checkStats;
        if (!MeasurePlacement(placement, options, echo, checks, echoStats, checkStats)) {
            return 1;
        }
        PrintRow(placement.name, "echo floor", echoStats);
        PrintRow(placement.name, "contact check", checkStats);
        char line[200];
        std::snprintf(line, sizeof(line), "%s processor: p50 %.2fx the floor's, throughput %.0f%% of the floor's",
                      placement.name, checkStats.PercentileMicros(0.5) / echoStats.PercentileMicros(0.5),
                      100.0 * checkStats.Throughput() / echoStats.Throughput());
        ratios.push_back(line);
    }
    std::printf("\n");
    for (const std::string& ratio : ratios) {
        std::printf("%s\n", ratio.c_str());
    }
    std::printf("SHA-256 of the 11-byte contact: %.0f ns per call\n", HashNanosPerCall("13800000031"));
    return 0;
}
