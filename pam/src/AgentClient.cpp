#include "AgentClient.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace brackmoor::pam {
namespace {

// The agent binds the name with its terminating NUL: 26 bytes of sun_path.
constexpr char kAgentName[] = "\0PAM_BRACKMOOR_IPC_SERVER";
constexpr std::size_t kAgentNameBytes = sizeof kAgentName; // 26, NUL included
constexpr socklen_t kAgentAddressLength = offsetof(sockaddr_un, sun_path) + kAgentNameBytes;
static_assert(kAgentAddressLength == 28, "the agent's address is 28 bytes long");

/// Longest reply the agent sends: "-2147483648" and NUL. Anything larger
/// arrives truncated and is not a reply.
constexpr std::size_t kReplyBuffer = 32;
/// Room for the credentials and for descriptors a hostile sender might pass,
/// which are closed at once.
constexpr std::size_t kControlBuffer = CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(16 * sizeof(int));

sockaddr_un AgentAddress()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kAgentName, kAgentNameBytes);
    return address;
}

long long NowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool FromAgentAddress(const sockaddr_un& sender, socklen_t length)
{
    return length == kAgentAddressLength &&
           std::memcmp(sender.sun_path, kAgentName, kAgentNameBytes) == 0;
}

/// Closes descriptors passed along with a datagram and finds the sender's credentials.
bool SenderCredentials(msghdr* message, ucred* credentials)
{
    bool found = false;
    for (cmsghdr* c = CMSG_FIRSTHDR(message); c != nullptr; c = CMSG_NXTHDR(message, c)) {
        if (c->cmsg_level != SOL_SOCKET) {
            continue;
        }
        if (c->cmsg_type == SCM_RIGHTS) {
            const std::size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < count; ++i) {
                int fd = -1;
                std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
                UniqueFd dropped(fd);
            }
        } else if (c->cmsg_type == SCM_CREDENTIALS && c->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
            std::memcpy(credentials, CMSG_DATA(c), sizeof *credentials);
            found = true;
        }
    }
    return found;
}

} // namespace

AskStatus AgentClient::Ask(const std::string& request, SecretString* reply)
{
    const long long deadline = NowMs() + timeoutMs_;
    if (!socket_.Valid() && !Open()) {
        return AskStatus::Failed;
    }
    AskStatus failure = AskStatus::Failed;
    if (!Send(request, &failure)) {
        return failure;
    }
    return Receive(deadline, reply);
}

bool AgentClient::Open()
{
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    // An address of sun_family alone asks the kernel for a fresh abstract
    // name of its own choosing, unique while this socket lives.
    const sockaddr_un autoBind{AF_UNIX, {}};
    if (!fd.Valid() || ::setsockopt(fd.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0 ||
        ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&autoBind), sizeof(sa_family_t)) != 0) {
        lastError_ = errno;
        return false;
    }
    socket_ = std::move(fd);
    return true;
}

bool AgentClient::Send(const std::string& request, AskStatus* failure)
{
    // A full queue at the agent blocks the send; bound that wait too.
    const timeval limit{timeoutMs_ / 1000, (timeoutMs_ % 1000) * 1000};
    const sockaddr_un agent = AgentAddress();
    if (::setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        lastError_ = errno;
        *failure = AskStatus::Failed;
        return false;
    }
    for (;;) {
        const ssize_t sent = ::sendto(socket_.Get(), request.data(), request.size(), MSG_NOSIGNAL,
                                      reinterpret_cast<const sockaddr*>(&agent), kAgentAddressLength);
        if (sent == static_cast<ssize_t>(request.size())) {
            return true;
        }
        lastError_ = sent < 0 ? errno : EMSGSIZE;
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (lastError_ == ECONNREFUSED || lastError_ == ENOENT) {
            *failure = AskStatus::NoServer;
        } else if (lastError_ == EAGAIN || lastError_ == EWOULDBLOCK) {
            *failure = AskStatus::TimedOut;
        } else {
            *failure = AskStatus::Failed;
        }
        return false;
    }
}

AskStatus AgentClient::Receive(long long deadlineMs, SecretString* reply)
{
    for (;;) {
        const long long left = deadlineMs - NowMs();
        if (left <= 0) {
            return AskStatus::TimedOut;
        }
        pollfd waiting{socket_.Get(), POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(left));
        if (ready < 0 && errno != EINTR) {
            lastError_ = errno;
            return AskStatus::Failed;
        }
        if (ready > 0 && ReadOne(reply)) {
            return AskStatus::Answered;
        }
    }
}

bool AgentClient::ReadOne(SecretString* reply)
{
    char data[kReplyBuffer];
    alignas(cmsghdr) char control[kControlBuffer];
    sockaddr_un sender{};
    iovec vector{data, sizeof data};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;

    const ssize_t got = ::recvmsg(socket_.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0) {
        return false;
    }
    ucred credentials{};
    const bool haveCredentials = SenderCredentials(&message, &credentials);
    const bool trusted = haveCredentials && credentials.uid == 0 && FromAgentAddress(sender, message.msg_namelen);
    if (trusted) {
        // A truncated datagram fills the whole buffer, which is longer than
        // any reply, so it cannot be mistaken for one.
        reply->Assign(data, static_cast<std::size_t>(got));
    } else {
        ++untrustedReplies_;
        lastUntrustedUid_ = haveCredentials ? credentials.uid : static_cast<uid_t>(-1);
    }
    WipeBytes(data, sizeof data);
    return trusted;
}

} // namespace brackmoor::pam
