
#include <gtest/gtest.h>

#include "RawClient.h"
#include "VerifydHarness.h"

namespace verifyd_test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// Whether the peer closes `socket` within `wait`; what it sends is dropped.
bool ClosedWithin(Poco::Net::StreamSocket& socket, milliseconds wait)
{
    char buffer[1024];
    try {
        while (socket.poll(Poco::Timespan(wait.count() * 1000), Poco::Net::Socket::SELECT_READ)) {
            if (socket.receiveBytes(buffer, sizeof buffer) <= 0) {
                return true;
            }
        }
        return false;
    } catch (const Poco::Exception&) {
        return true; // a reset: closed all the same
    }
}

/// Two request threads, two seconds per request, four connections per address.
class HeldConnections : public ServiceTest {
protected:
    HeldConnections()
        : ServiceTest("[server]\nthreads = 2\nrequest_timeout = 2\nconnections_per_client = 4\n")
    {
    }
};

TEST_F(HeldConnections, NeitherStopTheServiceNorOutliveTheirDeadline)
{
    std::vector<Poco::Net::StreamSocket> idle; // TCP, not even TLS
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int i = 0; i < 4; ++i) {
        idle.push_back(ConnectFrom("127.0.0.2", Port()));
        slow.push_back(std::make_unique<RawClient>(Port(), ClientContext(CaFile()), "127.0.0.3"));
        slow.back()->Exchange("GET /tfa_phone_num?agent_id=web-01 HTTP/1.1\r\n", false);
    }
    const Clock::time_point start = Clock::now();
    Poco::Net::StreamSocket fifth = ConnectFrom("127.0.0.2", Port());
    EXPECT_TRUE(ClosedWithin(fifth, milliseconds(1000))) << "a fifth is closed at once";
    EXPECT_EQ(List().status, 200) << "other clients are served meanwhile";
    // A line now and then does not keep a request alive past its deadline.
    bool closed = false;
    while (!closed && Clock::now() - start < milliseconds(4000)) {
        slow[0]->Exchange("X-Padding: 1\r\n", false);
        closed = ClosedWithin(slow[0]->Socket(), milliseconds(200));
    }
    EXPECT_TRUE(closed);
    EXPECT_GT(Clock::now() - start, milliseconds(1500)) << "not before its deadline";
    for (Poco::Net::StreamSocket& socket : idle) {
        EXPECT_TRUE(ClosedWithin(socket, milliseconds(1000)));
    }
}

using RawRequests = ServiceTest;

TEST_F(RawRequests, WhatNoAgentSendsIsAnsweredAtOnceAndABodyTooLargeIsNeverAskedFor)
{
    const struct {
        std::string sent;
        std::string answer; ///< the first line of the first answer
    } cases[] = {
        {RawList(token, "%zz"), "400 Bad Request"},
        {"POST /tfa_code?agent_id=web-01 HTTP/1.1\r\nX-Auth-Token: " + token +
             "\r\nContent-Length: 10000000\r\nExpect: 100-continue\r\n\r\n",
         "413 Request Entity Too Large"},
        {"\x16\x03\x01 not http\r\n\r\n", "400 Bad Request"},
    };
    for (const auto& c : cases) {
        const std::string answer = RawClient(Port(), ClientContext(CaFile())).Exchange(c.sent);
        EXPECT_EQ(answer.substr(0, answer.find("\r\n")), "HTTP/1.1 " + c.answer) << c.sent;
        EXPECT_NE(answer.find("\r\n\r\n{\"error\":"), std::string::npos) << answer;
    }
    EXPECT_TRUE(OutboxMessages().empty());
}

} // namespace
} // namespace verifyd_test
