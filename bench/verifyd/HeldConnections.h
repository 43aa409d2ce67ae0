#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace verifyd_bench {

/// Connections an attacker keeps open against the service while the clients
/// are measured: `count` of them, from the loopback addresses 127.0.0.2 and
/// up, `perAddress` from each (within the service's bound per address, so
/// that all of them are held rather than refused).
///
///   Idle: TCP connections that never send a byte.
///   Slow: TLS connections that send the start of a request and then one more
///         header line every second, never finishing it.
///
/// Each is opened again as soon as the service closes it, so that `count`
/// stay open throughout.
class HeldConnections {
public:
    enum class Kind { Idle, Slow };

    HeldConnections(Kind kind, int count, int perAddress, unsigned short port, std::string caFile);
    ~HeldConnections();

    HeldConnections(const HeldConnections&) = delete;
    HeldConnections& operator=(const HeldConnections&) = delete;

    /// Opens them all, then keeps them open in the background.
    void Start();
    void Stop();

    /// How often the service closed one of them (its deadline passed).
    long Closed() const { return closed; }

private:
    void Run();

    const Kind kind;
    const int count;
    const int perAddress;
    const unsigned short port;
    const std::string caFile;
    std::atomic<bool> stopping{false};
    std::atomic<bool> opened{false};
    std::atomic<long> closed{0};
    std::thread worker;
};

} // namespace verifyd_bench
