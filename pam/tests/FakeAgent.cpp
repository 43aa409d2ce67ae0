#include "FakeAgent.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace brackmoor::pam::test {

FakeAgent::FakeAgent(AgentScript script) : script_(std::move(script))
{
    // The agent's address exactly as the agent binds it: "\0PAM_BRACKMOOR_IPC_SERVER\0".
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, "\0PAM_BRACKMOOR_IPC_SERVER", 26);
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket_ >= 0 && bind(socket_, reinterpret_cast<sockaddr*>(&address), 28) == 0) {
        thread_ = std::thread([this] { Serve(); });
    } else {
        ADD_FAILURE() << "cannot bind the agent's name: " << std::strerror(errno);
        close(socket_);
        socket_ = -1;
    }
}

FakeAgent::~FakeAgent()
{
    if (socket_ >= 0) {
        shutdown(socket_, SHUT_RDWR); // ends the thread's blocking receive
        thread_.join();
        close(socket_);
    }
}

std::vector<std::string> FakeAgent::Requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void FakeAgent::Serve()
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

} // namespace brackmoor::pam::test
