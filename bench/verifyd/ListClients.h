#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace verifyd_bench {

/// What the clients saw.
struct ClientTotals {
    long requests = 0;  ///< requests answered 200 with the expected list
    long failures = 0;  ///< transport errors, other statuses or a different list
    std::chrono::duration<double> elapsed{0};
    std::vector<double> latenciesMs; ///< one per request, unsorted
};

/// How the clients talk to the service.
enum class Connection {
    PerRequest,    ///< through SDK::HttpUtils, as the agent does: a new TLS connection per request
                   ///< that resumes the session of the one before when the server agrees
    FullHandshake, ///< a new TLS connection per request with a full handshake, no session offered
    Resumed,       ///< a new TLS connection per request that resumes the client's last session
    KeepAlive,  ///< one persistent TLS connection per client: the server's own cost
};

/// Runs `clients` threads that GET /tfa_phone_num for `agent` until
/// `requests` have been sent in all or `limit` has passed, and checks every
/// answer against `expectedBody`. The SDK's configuration must point at the
/// service already; `caFile` is used for Resumed and KeepAlive connections.
ClientTotals RunListClients(int clients, long requests, std::chrono::seconds limit,
                            Connection connection, const std::string& agent,
                            const std::string& token, const std::string& expectedBody,
                            unsigned short port, const std::string& caFile);

} // namespace verifyd_bench
