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

    /// Sends `signal` and waits up to 20 s for the end (then kills it); the
    /// exit status, or -1 when it did not end in time or was stopped before.
    int Stop(int signal)
    {
        int status = -1;
        if (!stopped && ::kill(child.id(), signal) == 0 &&
            !TestSupport::WaitFor([&] { return (status = child.tryWait()) != -1; },
                                  std::chrono::seconds(20))) {
            ::kill(child.id(), SIGKILL);
            child.wait();
        }
        stopped = true;
        return status;
    }

private:
    Poco::ProcessHandle child;
    bool stopped = false;
};

} // namespace verifyd_test
