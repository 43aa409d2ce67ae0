#include "ConnectionLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include <Poco/Logger.h>
#include <Poco/Net/SocketAddress.h>

namespace brackmoor::verifyd {
namespace {

using Io = ClientConnection::Io;
using Phase = ClientConnection::Phase;

/// epoll data of the listening socket and of the wake-up descriptor; client
/// connections have ids from 1 up.
constexpr std::uint64_t kListenerId = 0;
constexpr std::uint64_t kWakeId = UINT64_MAX;
/// How often deadlines are checked when nothing else happens.
constexpr int kTickMs = 100;
/// After the answer that ends a connection, what the client still sends is
/// read and dropped for this long, so that closing does not reset the
/// connection before the client has read the answer.
constexpr std::chrono::seconds kDrainTime(2);
/// Answers under way get this long to go out when the service stops.
constexpr std::chrono::seconds kStopGrace(10);
constexpr std::chrono::seconds kReportInterval(60);

Poco::Logger& Log()
{
    return Poco::Logger::get("verifyd.server");
}

} // namespace

ConnectionLoop::ConnectionLoop(int listener, SSL_CTX* tls, ConnectionLimits connectionLimits,
                               RequestHandler& handler, WorkerPool& workers)
    : listenSocket(listener), context(tls), limits(std::move(connectionLimits)),
      requests(handler), pool(workers),
      counter(limits.perAddress, limits.total, limits.exemptAddresses)
{
}

ConnectionLoop::~ConnectionLoop() = default;

bool ConnectionLoop::Open(std::string& error)
{
    epoll.Reset(::epoll_create1(EPOLL_CLOEXEC));
    wake.Reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!epoll.Valid() || !wake.Valid()) {
        error = std::string("cannot set up the connection loop: ") + std::strerror(errno);
        return false;
    }
    epoll_event listen{EPOLLIN, {}};
    listen.data.u64 = kListenerId;
    epoll_event woken{EPOLLIN, {}};
    woken.data.u64 = kWakeId;
    if (::epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, listenSocket, &listen) != 0 ||
        ::epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, wake.Get(), &woken) != 0) {
        error = std::string("cannot watch the listening socket: ") + std::strerror(errno);
        return false;
    }
    listening = true;
    return true;
}

void ConnectionLoop::Stop()
{
    stopping = true;
    Wake();
}

void ConnectionLoop::Wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wake.Get(), &one, sizeof one);
}

void ConnectionLoop::Run()
{
    epoll_event events[256];
    bool winding = false;
    for (;;) {
        const int ready = ::epoll_wait(epoll.Get(), events, 256, kTickMs);
        const Clock::time_point now = Clock::now();
        for (int i = 0; i < ready; ++i) {
            const std::uint64_t id = events[i].data.u64;
            if (id == kListenerId) {
                Accept(now);
            } else if (id == kWakeId) {
                std::uint64_t count = 0;
                [[maybe_unused]] const ssize_t got = ::read(wake.Get(), &count, sizeof count);
                TakeAnswers(now);
            } else if (const auto found = connections.find(id); found != connections.end()) {
                Drive(id, *found->second, now);
            }
        }
        if (stopping && !winding) {
            winding = true;
            stopDeadline = now + kStopGrace;
            BeginStop();
        }
        Expire(now);
        if (winding && (!AnswersUnderWay() || now >= stopDeadline)) {
            return;
        }
    }
}

void ConnectionLoop::Accept(Clock::time_point now)
{
    for (;;) {
        sockaddr_storage address{};
        socklen_t length = sizeof address;
        const int socket = ::accept4(listenSocket, reinterpret_cast<sockaddr*>(&address), &length,
                                     SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of descriptors: the queued connection would wake the
                // loop at once again. Let deadlines free some first.
                Log().warning("cannot accept connections: %s", std::string(std::strerror(errno)));
                WatchListener(false);
                acceptPausedUntil = now + std::chrono::milliseconds(kTickMs);
            }
            return;
        }
        UniqueFd owned(socket);
        const Poco::Net::SocketAddress peer(reinterpret_cast<sockaddr*>(&address), length);
        const std::string host = peer.host().toString();
        if (counter.Admit(host) != ConnectionCounter::Verdict::Admitted) {
            ++refused;
            lastRefused = host;
            continue; // closed at once: the client sees its connection end
        }
        auto connection = std::make_unique<ClientConnection>(owned.Release(), context,
                                                             peer.toString(), host);
        connection->deadline = now + limits.requestTimeout;
        const Id id = nextId++;
        epoll_event event{EPOLLIN, {}};
        event.data.u64 = id;
        if (!connection->Usable() ||
            ::epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, connection->Socket(), &event) != 0) {
            counter.Release(host);
            continue;
        }
        connection->watched = EPOLLIN;
        connections.emplace(id, std::move(connection));
    }
}

void ConnectionLoop::Drive(Id id, ClientConnection& connection, Clock::time_point now)
{
    for (;;) {
        switch (connection.phase) {
        case Phase::Handshake: {
            const Io io = connection.Handshake();
            if (io != Io::Done) {
                return io == Io::Closed ? Close(id) : Wait(id, connection, io);
            }
            connection.phase = Phase::Reading;
            break;
        }
        case Phase::Reading:
        case Phase::Idle:
            return Read(id, connection, now);
        case Phase::Working:
            return; // the answer comes through TakeAnswers()
        case Phase::Writing: {
            const Io io = connection.Flush();
            if (io != Io::Done) {
                return io == Io::Closed ? Close(id) : Wait(id, connection, io);
            }
            if (connection.closeAfterAnswer || stopping) {
                connection.FinishSending();
                connection.phase = Phase::Draining;
                connection.deadline = now + kDrainTime;
            } else {
                connection.phase = Phase::Idle;
                connection.deadline = now + limits.requestTimeout;
            }
            break;
        }
        case Phase::Draining: {
            const Io io = connection.Drain();
            return io == Io::Closed ? Close(id) : Wait(id, connection, io);
        }
        }
    }
}

void ConnectionLoop::Read(Id id, ClientConnection& connection, Clock::time_point now)
{
    Io io = connection.HasOutput() ? connection.Flush() : Io::Done; // a "100 Continue"
    if (io == Io::Done) {
        io = connection.Fill();
    }
    if (io == Io::Closed) {
        return Close(id);
    }
    if (connection.phase == Phase::Idle) {
        if (!connection.HasInput()) {
            return Wait(id, connection, io);
        }
        // The next request has begun: from now on it must complete in time.
        connection.phase = Phase::Reading;
        connection.deadline = now + limits.requestTimeout;
        connection.continueSent = false;
    }
    FramedRequest framed = connection.Frame();
    switch (framed.state) {
    case FramedRequest::State::NeedMore:
        return Wait(id, connection, io);
    case FramedRequest::State::SendContinue:
        if (!connection.continueSent) {
            connection.continueSent = true;
            connection.Queue("HTTP/1.1 100 Continue\r\n\r\n");
            return Read(id, connection, now);
        }
        return Wait(id, connection, io);
    case FramedRequest::State::Refused:
        connection.closeAfterAnswer = true;
        Reply(connection, RequestHandler::Refusal(framed.refusal, framed.reason, connection.Peer()),
              now);
        return Drive(id, connection, now);
    case FramedRequest::State::Complete:
        return Dispatch(id, connection, std::move(framed));
    }
}

void ConnectionLoop::Dispatch(Id id, ClientConnection& connection, FramedRequest framed)
{
    connection.Consume(framed.consumed);
    connection.phase = Phase::Working;
    ++connection.requestsServed;
    const bool keepAlive = framed.keepAlive && !framed.request.bodyTooLarge && !stopping &&
                           connection.requestsServed < limits.requestsPerConnection;
    connection.closeAfterAnswer = !keepAlive;
    Watch(id, connection, 0);
    pool.Submit([this, id, keepAlive, framed = std::move(framed), peer = connection.Peer(),
                 address = connection.Address()]() mutable {
        std::string bytes;
        try {
            bytes = requests.Answer(std::move(framed), peer, address, keepAlive);
        } catch (const std::exception&) {
            // Out of memory, most likely: the client is told, the thread lives on.
            bytes = RequestHandler::Refusal(500, "internal error", peer);
        }
        {
            std::lock_guard<std::mutex> guard(answersLock);
            answers.push_back({id, std::move(bytes)});
        }
        Wake();
    });
}

void ConnectionLoop::Reply(ClientConnection& connection, std::string bytes, Clock::time_point now)
{
    connection.Queue(bytes);
    connection.phase = Phase::Writing;
    connection.deadline = now + limits.requestTimeout;
}

void ConnectionLoop::TakeAnswers(Clock::time_point now)
{
    std::vector<Answer> taken;
    {
        std::lock_guard<std::mutex> guard(answersLock);
        taken.swap(answers);
    }
    for (Answer& answer : taken) {
        const auto found = connections.find(answer.id);
        if (found != connections.end()) {
            Reply(*found->second, std::move(answer.bytes), now);
            Drive(answer.id, *found->second, now);
        }
    }
}

void ConnectionLoop::Wait(Id id, ClientConnection& connection, Io io)
{
    std::uint32_t events = io == Io::WantWrite ? EPOLLOUT : EPOLLIN;
    if (connection.HasOutput() && connection.phase != Phase::Writing) {
        events |= EPOLLOUT;
    }
    Watch(id, connection, events);
}

void ConnectionLoop::Watch(Id id, ClientConnection& connection, std::uint32_t events)
{
    if (connection.watched == events) {
        return;
    }
    // Without any events the socket leaves the set: epoll would still report
    // a reset connection, again and again, while a request thread works.
    epoll_event event{events, {}};
    event.data.u64 = id;
    const int operation = events == 0                ? EPOLL_CTL_DEL
                          : connection.watched == 0 ? EPOLL_CTL_ADD
                                                    : EPOLL_CTL_MOD;
    ::epoll_ctl(epoll.Get(), operation, connection.Socket(), &event);
    connection.watched = events;
}

void ConnectionLoop::WatchListener(bool on)
{
    epoll_event event{on ? static_cast<std::uint32_t>(EPOLLIN) : 0u, {}};
    event.data.u64 = kListenerId;
    ::epoll_ctl(epoll.Get(), EPOLL_CTL_MOD, listenSocket, &event);
    listening = on;
}

void ConnectionLoop::Close(Id id)
{
    const auto found = connections.find(id);
    if (found == connections.end()) {
        return;
    }
    Watch(id, *found->second, 0);
    counter.Release(found->second->Address());
    connections.erase(found);
}

void ConnectionLoop::CloseWhere(const std::function<bool(const ClientConnection&)>& doomed)
{
    std::vector<Id> chosen;
    for (const auto& [id, connection] : connections) {
        if (doomed(*connection)) {
            chosen.push_back(id);
        }
    }
    for (const Id id : chosen) {
        Close(id);
    }
}

void ConnectionLoop::Expire(Clock::time_point now)
{
    CloseWhere([now](const ClientConnection& connection) {
        return connection.phase != Phase::Working && now >= connection.deadline;
    });
    if (!listening && !stopping && now >= acceptPausedUntil) {
        WatchListener(true);
    }
    if (refused > 0 && now - lastRefusalReport >= kReportInterval) {
        Log().warning("refused %ld connection(s) since the last report: an address held %d "
                      "connections already, or the service %d (the last from %s)",
                      refused, limits.perAddress, limits.total, lastRefused);
        refused = 0;
        lastRefusalReport = now;
    }
}

void ConnectionLoop::BeginStop()
{
    ::epoll_ctl(epoll.Get(), EPOLL_CTL_DEL, listenSocket, nullptr);
    listening = false;
    CloseWhere([](const ClientConnection& connection) { return !connection.AnswerUnderWay(); });
}

bool ConnectionLoop::AnswersUnderWay() const
{
    return std::any_of(connections.begin(), connections.end(),
                       [](const auto& entry) { return entry.second->AnswerUnderWay(); });
}

} // namespace brackmoor::verifyd
