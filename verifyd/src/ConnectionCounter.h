#pragma once

#include <set>
#include <string>
#include <unordered_map>

namespace brackmoor::verifyd {

/// Bounds the open connections: in all, and per client address, so that no
/// one address can take the connections that every other agent needs.
/// Addresses of trusted reverse proxies carry many clients' connections and
/// count only against the total.
///
/// Used by the event loop's thread alone.
class ConnectionCounter {
public:
    enum class Verdict {
        Admitted,    ///< counted; Release() it when the connection closes
        AddressFull, ///< the address holds its share already
        ServiceFull, ///< the service holds all the connections it takes
    };

    ConnectionCounter(int perAddress, int total, std::set<std::string> exemptAddresses);

    /// Counts a new connection from `address` when both bounds allow it.
    Verdict Admit(const std::string& address);

    /// Forgets a connection that Admit() counted.
    void Release(const std::string& address);

private:
    const int perAddress;
    const int total;
    const std::set<std::string> exempt;
    std::unordered_map<std::string, int> byAddress;
    int open = 0;
};

} // namespace brackmoor::verifyd
