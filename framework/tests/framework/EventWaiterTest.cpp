#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "Framework/Event.h"
#include "Framework/EventWaiter.h"

namespace {

struct Recorder {
    int OnReady(int fd, unsigned int events, void* data)
    {
        char byte = 0;
        EXPECT_EQ(read(fd, &byte, 1), 1);
        calls.push_back({fd, events, data});
        return 0;
    }
    struct Call {
        int fd;
        unsigned int events;
        void* data;
    };
    std::vector<Call> calls;
};

class SocketPair {
public:
    SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds), 0); }
    ~SocketPair()
    {
        close(fds[0]);
        close(fds[1]);
    }
    int fds[2] = {-1, -1};
};

TEST(EventWaiter, ReadyEventRunsItsCallbackWithItsData)
{
    Recorder recorder;
    SocketPair pair;
    int marker = 0;
    Framework::Event event(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), &marker,
                           pair.fds[0]);
    Framework::EventWaiter waiter;
    ASSERT_EQ(waiter.AddEvent(event), 0);

    EXPECT_EQ(waiter.WaitAndHandleEvent(10, 8), -1) << "nothing ready within the time-out";
    ASSERT_EQ(write(pair.fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 8), 1);
    ASSERT_EQ(recorder.calls.size(), 1u);
    EXPECT_EQ(recorder.calls[0].fd, pair.fds[0]);
    EXPECT_EQ(recorder.calls[0].data, &marker);

    ASSERT_EQ(waiter.RemoveEvent(event), 0);
    ASSERT_EQ(write(pair.fds[1], "y", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(10, 8), -1) << "a removed event is not watched";
}

TEST(EventWaiter, HandlesAtMostMaxEventsPerCall)
{
    Recorder recorder;
    SocketPair first;
    SocketPair second;
    Framework::Event a(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), nullptr, first.fds[0]);
    Framework::Event b(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), nullptr, second.fds[0]);
    Framework::EventWaiter waiter;
    ASSERT_EQ(waiter.AddEvent(a), 0);
    ASSERT_EQ(waiter.AddEvent(b), 0);
    ASSERT_EQ(write(first.fds[1], "x", 1), 1);
    ASSERT_EQ(write(second.fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);
    EXPECT_EQ(recorder.calls.size(), 2u);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 0), -1) << "no room for events";
}

TEST(EventWaiter, RefusesClosedDescriptors)
{
    Framework::Event closed(nullptr, nullptr, -1);
    Framework::EventWaiter waiter;
    EXPECT_EQ(waiter.AddEvent(closed), -1);
    EXPECT_EQ(waiter.RemoveEvent(closed), -1);
}

} // namespace
