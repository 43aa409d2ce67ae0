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
    /// The replies' sender: not 0 makes the stand-in a local user's impostor,
    /// bound to the agent's name while the agent is down.
    uid_t senderUid = 0;
};

/// Stand-in for the agent's side of the protocol: a real datagram socket
/// bound to the agent's abstract name (26 bytes of sun_path, address
/// length 28), served by a thread of the test process. That thread alone
/// takes on `senderUid`, so the kernel reports it as the sender of every
/// reply, as it would for another user's process. A name that cannot be
/// bound fails the test.
class FakeAgent {
public:
    explicit FakeAgent(AgentScript script);
    ~FakeAgent();
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    /// The requests received so far, byte for byte.
    std::vector<std::string> Requests() const;

private:
    void Serve();

    AgentScript script_;
    int socket_ = -1;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

} // namespace brackmoor::pam::test
