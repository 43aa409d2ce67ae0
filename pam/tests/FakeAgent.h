#pragma once

#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace brackmoor::pam::test {

/// How the stand-in answers.
struct AgentScript {
    /// Reply text to "1:<contact>" per contact; contacts not listed get "2".
    std::map<std::string, std::string> contactReplies;
    /// Reply text to every "2:<reference>".
    std::string codeReply = "42137";
    /// Receives requests but never answers.
    bool silent = false;
};

/// Stand-in for the agent's side of the protocol: a real datagram socket
/// bound to the agent's abstract name (26 bytes of sun_path, address
/// length 28), served by a thread of the test process, which runs as root.
class FakeAgent {
public:
    explicit FakeAgent(AgentScript script);
    ~FakeAgent();
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    /// False when the name could not be bound.
    bool Bound() const { return socket_ >= 0; }
    /// The requests received so far, without trailing NULs.
    std::vector<std::string> Requests() const;

private:
    void Serve();
    void Answer(const std::string& request, const void* peer, unsigned peerLength);

    AgentScript script_;
    int socket_ = -1;
    int stop_ = -1;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

/// A local user's process (uid 65534) that has bound the agent's name while
/// the agent is down and answers "listed" and a code to everything.
class ImpostorAgent {
public:
    ImpostorAgent();
    ~ImpostorAgent();
    ImpostorAgent(const ImpostorAgent&) = delete;
    ImpostorAgent& operator=(const ImpostorAgent&) = delete;

    /// False when the child could not bind the name.
    bool Ready() const { return ready_; }
    /// Requests the impostor has received and answered.
    int Answered();

private:
    pid_t child_ = -1;
    int events_ = -1;
    bool ready_ = false;
    int answered_ = 0;
};

} // namespace brackmoor::pam::test
