#pragma once

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace brackmoor::pam::test {

/// How the stand-in answers.
struct AgentScript {
    std::map<std::string, std::string> contactReplies; ///< reply to "1:<contact>"; contacts not listed get "2"
    std::string codeReply = "42137";                  ///< reply to every "2:<reference>"
    bool silent = false;                              ///< receives requests but never answers
    uid_t senderUid = 0; ///< not 0: the replies come from a local user's impostor, bound while the agent is down
};

/// Stand-in for the agent's side of the protocol: a real datagram socket
/// bound to the agent's abstract name (26 bytes of sun_path, address length
/// 28), served by a thread of the test process that alone takes on
/// `senderUid`, so the kernel reports it as the sender of every reply, as it
/// would for another user's process. A name that cannot be bound fails the test.
class FakeAgent {
public:
    explicit FakeAgent(AgentScript script) : script_(std::move(script))
    {
        const sockaddr_un address{AF_UNIX, "\0PAM_BRACKMOOR_IPC_SERVER"};
        socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (socket_ >= 0 && bind(socket_, reinterpret_cast<const sockaddr*>(&address), 28) == 0) {
            thread_ = std::thread([this] { Serve(); });
        } else {
            ADD_FAILURE() << "cannot bind the agent's name: " << std::strerror(errno);
        }
    }
    ~FakeAgent()
    {
        shutdown(socket_, SHUT_RDWR); // ends the thread's blocking receive
        if (thread_.joinable()) {
            thread_.join();
        }
        close(socket_);
    }
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    /// The requests received so far, byte for byte.
    std::vector<std::string> Requests() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
    void Serve()
    {
        // The raw system calls change this thread's credentials only; the C
        // library's setuid() would change those of the whole test process.
        const uid_t uid = script_.senderUid;
        if (uid != 0 && (syscall(SYS_setresgid, uid, uid, uid) != 0 || syscall(SYS_setresuid, uid, uid, uid) != 0)) {
            return;
        }
        char buffer[256];
        sockaddr_un peer{};
        socklen_t length = sizeof peer;
        ssize_t got = 0;
        while ((got = recvfrom(socket_, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&peer), &length)) > 0) {
            const std::string request(buffer, static_cast<std::size_t>(got));
            std::string reply = request.rfind("2:", 0) == 0 ? script_.codeReply : "3";
            if (request.rfind("1:", 0) == 0) {
                const auto listed = script_.contactReplies.find(request.substr(2));
                reply = listed != script_.contactReplies.end() ? listed->second : "2";
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.push_back(request);
            }
            if (!script_.silent) {
                sendto(socket_, reply.c_str(), reply.size() + 1, 0, reinterpret_cast<sockaddr*>(&peer), length);
            }
            length = sizeof peer;
        }
    }

    AgentScript script_;
    int socket_ = -1;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

} // namespace brackmoor::pam::test
