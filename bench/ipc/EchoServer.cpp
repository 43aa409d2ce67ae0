#include "EchoServer.h"

#include <unistd.h>

#include <cstddef>
#include <cstring>

#include "Framework/EventCallback.h"
#include "Pinning.h"

namespace TfaBench {

namespace {

const char kEchoName[] = "\0BRACKMOOR_BENCH_ECHO_SRV";  // as long as the task's name

} // namespace

EchoServer::EchoServer()
{
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kEchoName, sizeof(kEchoName));
    addressLength = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + sizeof(kEchoName));
}

EchoServer::~EchoServer()
{
    Stop();
    if (event != nullptr) {
        waiter.RemoveEvent(*event);
        delete event;
    }
    if (socketFd >= 0) {
        close(socketFd);
    }
}

bool EchoServer::Bind()
{
    socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0 || bind(socketFd, reinterpret_cast<const struct sockaddr*>(&address), addressLength) != 0) {
        return false;
    }
    event = new Framework::Event(new Framework::EventCallback<EchoServer>(this, &EchoServer::OnReadable), nullptr,
                                 socketFd);
    return waiter.AddEvent(*event) == 0;
}

bool EchoServer::Start(int cpu)
{
    stopping = false;
    thread = std::thread([this] {
        while (!stopping.load(std::memory_order_relaxed)) {
            waiter.WaitAndHandleEvent(100, 128);
        }
    });
    return PinThread(thread.native_handle(), cpu);
}

void EchoServer::Stop()
{
    stopping = true;
    if (thread.joinable()) {
        thread.join();
    }
}

int EchoServer::OnReadable(int, unsigned int, void*)
{
    char buffer[256];
    struct sockaddr_un peer;
    socklen_t peerLength = sizeof(peer);
    const ssize_t received =
        recvfrom(socketFd, buffer, sizeof(buffer), 0, reinterpret_cast<struct sockaddr*>(&peer), &peerLength);
    if (received <= 0) {
        return -1;
    }
    sendto(socketFd, buffer, static_cast<size_t>(received), 0, reinterpret_cast<const struct sockaddr*>(&peer),
           peerLength);
    return 0;
}

} // namespace TfaBench
