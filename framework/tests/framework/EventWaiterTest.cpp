#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <memory>
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
    Framework::Event* NewEvent(Recorder& recorder, void* data)
    {
        return new Framework::Event(new Framework::EventCallback<Recorder>(&recorder, &Recorder::OnReady), data,
                                    fds[0]);
    }
    int fds[2] = {-1, -1};
};

TEST(EventWaiter, ReadyEventRunsItsCallbackWithItsDataUntilRemoved)
{
    Recorder recorder;
    SocketPair pair;
    int marker = 0;
    std::unique_ptr<Framework::Event> event(pair.NewEvent(recorder, &marker));
    Framework::EventWaiter waiter;
    ASSERT_EQ(waiter.AddEvent(*event), 0);

    EXPECT_EQ(waiter.WaitAndHandleEvent(10, 8), -1) << "nothing ready within the time-out";
    ASSERT_EQ(write(pair.fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 8), 1);
    EXPECT_EQ(recorder.calls, (std::vector<std::pair<int, void*>>{{pair.fds[0], &marker}}));

    ASSERT_EQ(waiter.RemoveEvent(*event), 0);
    ASSERT_EQ(write(pair.fds[1], "y", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(10, 8), -1) << "a removed event is not watched";

    Framework::Event closed(nullptr, nullptr, -1);
    EXPECT_EQ(waiter.AddEvent(closed), -1);
    EXPECT_EQ(waiter.RemoveEvent(closed), -1);
}

TEST(EventWaiter, HandlesAtMostMaxEventsPerCall)
{
    Recorder recorder;
    SocketPair first;
    SocketPair second;
    std::unique_ptr<Framework::Event> a(first.NewEvent(recorder, nullptr));
    std::unique_ptr<Framework::Event> b(second.NewEvent(recorder, nullptr));
    Framework::EventWaiter waiter;
    ASSERT_EQ(waiter.AddEvent(*a), 0);
    ASSERT_EQ(waiter.AddEvent(*b), 0);
    ASSERT_EQ(write(first.fds[1], "x", 1), 1);
    ASSERT_EQ(write(second.fds[1], "x", 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);
    EXPECT_EQ(waiter.WaitAndHandleEvent(1000, 1), 1);
    EXPECT_EQ(recorder.calls.size(), 2u);
    EXPECT_EQ(waiter.WaitAndHandleEvent(0, 0), -1) << "no room for events";
}

} // namespace
