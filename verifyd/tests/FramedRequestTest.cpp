#include <gtest/gtest.h>

#include "FramedRequest.h"

namespace brackmoor::verifyd {
namespace {

using State = FramedRequest::State;

TEST(FramedRequest, TakesOnlyWholeRequestsAndRefusesWhatNoAgentSends)
{
    const std::string head = "POST /tfa_code?agent_id=a HTTP/1.1\r\nX-Auth-Token: t\r\n";
    const std::string next = "GET / HTTP/1.1\r\n\r\n";
    const struct {
        std::string input;
        State state;
        int refusal;          ///< for Refused
        std::string body;     ///< for Complete
        std::size_t consumed; ///< for Complete
    } cases[] = {
        {head, State::NeedMore, 0, "", 0},
        {head + "Content-Length: 3\r\n\r\n{}", State::NeedMore, 0, "", 0},
        {head + "Content-Length: 2\r\n\r\n{}" + next, State::Complete, 0, "{}", head.size() + 23},
        {head + "\r\n{\"random_num\":1}", State::Complete, 0, "", head.size() + 2}, // no length, no body
        {head + "Content-Length: 2\r\nExpect: 100-continue\r\n\r\n", State::SendContinue, 0, "", 0},
        {head + "Content-Length: 2\r\nExpect: 100-continue\r\n\r\n{", State::NeedMore, 0, "", 0},
        {head + "Content-Length: 10000000\r\nExpect: 100-continue\r\n\r\n", State::Complete, 0, "",
         head.size() + 50},
        {head + "Content-Length: 4096\r\n\r\n" + std::string(4096, 'x'), State::Complete, 0,
         std::string(4096, 'x'), head.size() + 4120}, // the largest body taken
        {head + "Transfer-Encoding: chunked\r\n\r\n", State::Refused, 411, "", 0},
        {head + "Content-Length: -1\r\n\r\n", State::Refused, 400, "", 0},
        {"HELLO\r\n\r\n", State::Refused, 400, "", 0},
        {head + std::string(9000, 'x'), State::Refused, 431, "", 0},
    };
    for (const auto& c : cases) {
        const FramedRequest framed = FramedRequest::From(c.input);
        const std::string row = c.input.substr(head.size() < c.input.size() ? head.size() : 0, 60);
        ASSERT_EQ(framed.state, c.state) << row;
        EXPECT_EQ(framed.refusal, c.refusal) << row;
        if (c.state == State::Complete) {
            EXPECT_EQ(framed.request.body, c.body) << row;
            EXPECT_EQ(framed.consumed, c.consumed) << row;
            EXPECT_EQ(framed.request.bodyTooLarge, c.input.find("10000000") != std::string::npos);
            EXPECT_EQ(framed.request.authToken.value_or(""), "t");
            EXPECT_EQ(framed.keepAlive, !framed.request.bodyTooLarge) << row;
        }
    }
}

} // namespace
} // namespace brackmoor::verifyd
