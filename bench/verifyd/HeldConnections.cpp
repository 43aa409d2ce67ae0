#include "HeldConnections.h"

#include <chrono>
#include <memory>
#include <vector>

#include <Poco/Net/Context.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/StreamSocket.h>

namespace verifyd_bench {
namespace {

using Clock = std::chrono::steady_clock;

/// One held connection; TLS only for the slow kind.
struct Held {
    std::string from;
    std::unique_ptr<Poco::Net::StreamSocket> socket;
    Clock::time_point nextLine;
};

bool Send(Poco::Net::StreamSocket& socket, const std::string& text)
{
    try {
        return socket.sendBytes(text.data(), static_cast<int>(text.size())) > 0;
    } catch (const Poco::Exception&) {
        return false;
    }
}

/// Whether the service has closed `socket` (reads and drops what it sent).
bool ClosedByPeer(Poco::Net::StreamSocket& socket)
{
    try {
        char buffer[512];
        return socket.poll(Poco::Timespan(0), Poco::Net::Socket::SELECT_READ) &&
               socket.receiveBytes(buffer, sizeof buffer) <= 0;
    } catch (const Poco::Exception&) {
        return true;
    }
}

} // namespace

HeldConnections::HeldConnections(Kind heldKind, int held, int fromEach, unsigned short servicePort,
                                 std::string ca)
    : kind(heldKind), count(held), perAddress(fromEach), port(servicePort), caFile(std::move(ca))
{
}

HeldConnections::~HeldConnections()
{
    Stop();
}

void HeldConnections::Start()
{
    worker = std::thread([this] { Run(); });
    while (!opened) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void HeldConnections::Stop()
{
    stopping = true;
    if (worker.joinable()) {
        worker.join();
    }
}

void HeldConnections::Run()
{
    Poco::Net::Context::Params params;
    params.caLocation = caFile;
    const Poco::Net::Context::Ptr context =
        new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, params);
    std::vector<Held> held(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < held.size(); ++i) {
        held[i].from = "127.0.0." + std::to_string(2 + static_cast<int>(i) / perAddress);
    }
    const auto open = [&](Held& h) {
        try {
            Poco::Net::StreamSocket plain;
            plain.impl()->bind(Poco::Net::SocketAddress(h.from, 0), false);
            plain.connect(Poco::Net::SocketAddress("127.0.0.1", port));
            if (kind == Kind::Idle) {
                h.socket = std::make_unique<Poco::Net::StreamSocket>(plain);
                return;
            }
            auto tls = std::make_unique<Poco::Net::SecureStreamSocket>(
                Poco::Net::SecureStreamSocket::attach(plain, "localhost", context));
            tls->completeHandshake();
            Send(*tls, "GET /tfa_phone_num?agent_id=bench-01 HTTP/1.1\r\n");
            h.socket = std::move(tls);
            h.nextLine = Clock::now() + std::chrono::seconds(1);
        } catch (const Poco::Exception&) {
            h.socket.reset(); // tried again on the next round
        }
    };
    for (Held& h : held) {
        open(h);
    }
    opened = true;
    while (!stopping) {
        for (Held& h : held) {
            if (h.socket && ClosedByPeer(*h.socket)) {
                ++closed;
                h.socket.reset();
            }
            if (h.socket && kind == Kind::Slow && Clock::now() >= h.nextLine) {
                h.nextLine = Clock::now() + std::chrono::seconds(1);
                Send(*h.socket, "X-Held: 1\r\n");
            }
            if (!h.socket) {
                open(h);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

} // namespace verifyd_bench
