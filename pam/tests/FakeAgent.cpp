#include "FakeAgent.h"

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace brackmoor::pam::test {
namespace {

constexpr uid_t kNobody = 65534;
constexpr int kReadyTimeoutMs = 5000;

/// The agent's address exactly as the agent binds it: "\0PAM_BRACKMOOR_IPC_SERVER\0".
int BindAgentName()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, "\0PAM_BRACKMOOR_IPC_SERVER", 26);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), 28) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

void Reply(int fd, const std::string& text, const sockaddr_un& peer, socklen_t length)
{
    sendto(fd, text.c_str(), text.size() + 1, 0, reinterpret_cast<const sockaddr*>(&peer), length);
}

} // namespace

FakeAgent::FakeAgent(AgentScript script) : script_(std::move(script))
{
    socket_ = BindAgentName();
    stop_ = eventfd(0, EFD_CLOEXEC);
    if (socket_ >= 0) {
        thread_ = std::thread([this] { Serve(); });
    }
}

FakeAgent::~FakeAgent()
{
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        (void)!write(stop_, &one, sizeof one);
        thread_.join();
    }
    close(stop_);
    if (socket_ >= 0) {
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
    for (;;) {
        pollfd fds[2] = {{socket_, POLLIN, 0}, {stop_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN) != 0) {
            return;
        }
        char buffer[256] = {};
        sockaddr_un peer{};
        socklen_t length = sizeof peer;
        const ssize_t got = recvfrom(socket_, buffer, sizeof buffer - 1, 0, reinterpret_cast<sockaddr*>(&peer), &length);
        if (got > 0) {
            Answer(std::string(buffer), &peer, length);
        }
    }
}

void FakeAgent::Answer(const std::string& request, const void* peer, unsigned peerLength)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
    }
    if (script_.silent) {
        return;
    }
    std::string reply = "3";
    if (request.rfind("1:", 0) == 0) {
        const auto listed = script_.contactReplies.find(request.substr(2));
        reply = listed != script_.contactReplies.end() ? listed->second : "2";
    } else if (request.rfind("2:", 0) == 0) {
        reply = script_.codeReply;
    }
    Reply(socket_, reply, *static_cast<const sockaddr_un*>(peer), peerLength);
}

ImpostorAgent::ImpostorAgent()
{
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return;
    }
    child_ = fork();
    if (child_ == 0) {
        close(pipeFds[0]);
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0) {
            _exit(1);
        }
        const int fd = BindAgentName();
        if (fd < 0 || write(pipeFds[1], "R", 1) != 1) {
            _exit(1);
        }
        for (;;) {
            char buffer[256];
            sockaddr_un peer{};
            socklen_t length = sizeof peer;
            const ssize_t got = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&peer), &length);
            if (got > 0) {
                Reply(fd, buffer[0] == '1' ? "1" : "42137", peer, length);
                (void)!write(pipeFds[1], "A", 1);
            }
        }
    }
    close(pipeFds[1]);
    events_ = pipeFds[0];
    pollfd ready{events_, POLLIN, 0};
    char byte = 0;
    ready_ = child_ > 0 && poll(&ready, 1, kReadyTimeoutMs) == 1 && read(events_, &byte, 1) == 1 && byte == 'R';
}

ImpostorAgent::~ImpostorAgent()
{
    if (child_ > 0) {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    if (events_ >= 0) {
        close(events_);
    }
}

int ImpostorAgent::Answered()
{
    pollfd pending{events_, POLLIN, 0};
    char byte = 0;
    while (poll(&pending, 1, 0) == 1 && read(events_, &byte, 1) == 1) {
        answered_ += byte == 'A' ? 1 : 0;
    }
    return answered_;
}

} // namespace brackmoor::pam::test
