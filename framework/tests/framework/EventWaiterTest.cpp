#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "Framework/Event.h"
#include "Framework/EventWaiter.h"

namespace {

/// Reads the ready byte and records each call.
struct Recorder {
    int OnReady(int fd, unsigned int, void* data)
    {
        char byte = 0;
        EXPECT_EQ(read(fd, &byte, 1), 1);
        calls.push_back({fd, data});
        return 0;
    }
    std::vector<std::pair<int, void*>> calls;
};

/// A connected datagram pair: writing to fds[1] makes fds[0] ready.
struct SocketPair {
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0); }
    ~SocketPair()
    {
        close(fds[0]);
        close(fds[1]);
    }
    int fds[2] = {-1, -1};
};

TEST(EventWaiter, ReadyEventsRunTheirCallbacksAtMostMaxEventsPerCallUntilRemoved)
{
    Recorder recorder;
    SocketPair first;
    SocketPair second;
    int marker = 0;
    Framework::Event a(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), &marker, first.fds[0]);
    Framework::Event b(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), nullptr, second.fds[0]);
    Framework::EventWaiter waiter;
    ASSERT_EQ(waiter.AddEvent(a), 0);
    ASSERT_EQ(waiter.AddEvent(b), 0);

    EXPECT_EQ(waiter.WaitAndHandleEvent(10, 8), -1) << "nothing ready within the time-out";
    ASSERT_EQ(write(first.fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 8), 1);
    EXPECT_EQ(recorder.calls, (std::vector<std::pair<int, void*>>{{first.fds[0], &marker}}));

    ASSERT_EQ(write(first.fds[1], "x", 1), 1);
    ASSERT_EQ(write(second.fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);
    EXPECT_EQ(recorder.calls.size(), 3u);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 0), -1) << "no room for events";

    ASSERT_EQ(waiter.RemoveEvent(a), 0);
    ASSERT_EQ(write(first.fds[1], "y", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(10, 8), -1) << "a removed event is not watched";
    Framework::Event closed(nullptr, nullptr, -1);
    EXPECT_EQ(waiter.AddEvent(closed), -1);
    EXPECT_EQ(waiter.RemoveEvent(closed), -1);
}

} // namespace
