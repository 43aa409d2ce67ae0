#pragma once

#include <string>
#include <vector>

#include "ApiTypes.h"
#include "AuthThrottle.h"
#include "CodeLimits.h"
#include "Courier.h"
#include "Database.h"

namespace brackmoor::verifyd {

/// The service's two operations, as the agent calls them:
///
///   GET  /tfa_phone_num?agent_id=ID        -> {"comm_list": [hash, ...]}
///   POST /tfa_code?agent_id=ID  {"random_num": N}
///                                          -> {"comm_list": [...], "verification_code": "DDDDDD"}
///
/// Both need the header X-Auth-Token with the agent's token. Every hash is the
/// lower-case hex SHA-256 of a contact in the normalised form of
/// brackmoor/Contact.h, which is what the agent computes for what a user types.
///
/// Statuses: 200 success; 400 malformed (target, agent_id, body); 401 unknown
/// agent or wrong token; 404 unknown path; 405 wrong method; 409 the agent has
/// no contacts (an empty list would only make the agent fail later); 413 body
/// too large; 429 code rate limit, or too many failed authentications from the
/// client's address (Retry-After set either way); 500 internal failure; 502 a
/// message could not be delivered, so no code is handed out. Every answer
/// other than 200 is {"error": "..."}.
///
/// Transport-independent and thread-safe; RequestHandler adapts it to HTTP.
class VerificationApi {
public:
    VerificationApi(Database& store, CodeLimits codeLimits, AuthThrottle& guessing,
                    Courier& messenger);

    /// Answers one request. Never throws.
    ApiResponse Handle(const ApiRequest& request);

    /// The answer {"error": `message`} with `status`.
    static ApiResponse Refusal(int status, const std::string& message);

private:
    /// Checks the token of `agent` and reads its contacts; 0 when the agent is
    /// authenticated, else the status to answer with (failures are counted
    /// against the client's address).
    int Authenticate(const ApiRequest& request, const std::string& agent,
                     std::vector<std::string>& contacts);

    ApiResponse IssueCode(const std::string& agent, const std::vector<std::string>& hashes,
                          const std::vector<std::string>& contacts, const std::string& body);

    Database& database;
    const CodeLimits limits;
    AuthThrottle& throttle;
    Courier& courier;
};

} // namespace brackmoor::verifyd
