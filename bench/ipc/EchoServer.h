#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <thread>

#include "Framework/Event.h"
#include "Framework/EventWaiter.h"

namespace TfaBench {

/// The floor of the machine: a datagram server on an abstract name that
/// sends every request straight back, served by the same event loop as the
/// task (Framework::EventWaiter with the task's arguments) on a thread of
/// its own. Whatever the task costs beyond this is its own work.
class EchoServer {
public:
    EchoServer();
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    /// Binds the name; false when it cannot.
    bool Bind();
    /// Serves on a new thread pinned to `cpu`.
    bool Start(int cpu);
    /// Ends the loop (within one wait of 100 ms) and joins the thread.
    void Stop();

    const struct sockaddr_un& Address() const { return address; }
    socklen_t AddressLength() const { return addressLength; }

private:
    int OnReadable(int fd, unsigned int events, void* data);

    int socketFd = -1;
    struct sockaddr_un address;
    socklen_t addressLength = 0;
    Framework::EventWaiter waiter;
    Framework::Event* event = nullptr;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

} // namespace TfaBench
