#pragma once

#include <signal.h>

#include <string>
#include <vector>

#include <Poco/Net/ServerSocket.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>

#include "TestSupport/WaitFor.h"

namespace verifyd_test {

struct Outcome {
    int status = -1;
    std::string out, err;
};

/// Runs the program's binary with `args` to its end and collects its output.
/// A run that hangs is killed after 20 seconds (status 137).
inline Outcome Program(std::vector<std::string> args)
{
    args.insert(args.begin(), {"-s", "KILL", "20", VERIFYD_PROGRAM});
    Poco::Pipe out, err;
    Poco::ProcessHandle child = Poco::Process::launch("/usr/bin/timeout", args, nullptr, &out, &err);
    Outcome outcome;
    Poco::PipeInputStream outStream(out), errStream(err);
    Poco::StreamCopier::copyToString(outStream, outcome.out);
    Poco::StreamCopier::copyToString(errStream, outcome.err);
    outcome.status = child.wait();
    return outcome;
}

/// A loopback port that nothing listens on (it was free a moment ago).
inline unsigned short FreeLoopbackPort()
{
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

/// `program` with `args` running in the background; killed when the object goes.
class Background {
public:
    Background(const std::string& program, const std::vector<std::string>& args)
        : child(Poco::Process::launch(program, args))
    {
    }
    ~Background() { Stop(SIGKILL); }

    /// Sends `signal` and returns the exit status, -1 when it was stopped before. A
    /// program that never ends is left to the suite's time limit, which fails it.
    int Stop(int signal)
    {
        const bool running = !stopped && ::kill(child.id(), signal) == 0;
        stopped = true;
        return running ? child.wait() : -1;
    }

private:
    Poco::ProcessHandle child;
    bool stopped = false;
};

} // namespace verifyd_test
