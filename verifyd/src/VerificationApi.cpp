#include "VerificationApi.h"

#include <exception>

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/URI.h>
#include <json/json.h>

#include "Secrets.h"
#include "brackmoor/Contact.h"

namespace brackmoor::verifyd {
namespace {

constexpr const char* kListPath = "/tfa_phone_num";
constexpr const char* kCodePath = "/tfa_code";

std::string Compact(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

ApiResponse Answer(int status, const Json::Value& body)
{
    ApiResponse response;
    response.status = status;
    response.body = Compact(body);
    return response;
}

/// The single, non-empty agent_id of the query; false when missing or repeated.
bool QueryAgent(const Poco::URI::QueryParameters& query, std::string& agent)
{
    int found = 0;
    for (const auto& [name, value] : query) {
        if (name == "agent_id") {
            ++found;
            agent = value;
        }
    }
    return found == 1 && !agent.empty();
}

/// The integer "random_num" of a JSON object body; false for anything else
/// (not JSON, not an object, missing, or not an integer such as 1.5 or "7").
bool RandomNum(const std::string& body, long long& number)
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(body.data(), body.data() + body.size(), &root, &errors) ||
        !root.isObject()) {
        return false;
    }
    const Json::Value& value = root["random_num"];
    if (value.type() == Json::intValue) {
        number = value.asInt64();
        return true;
    }
    if (value.type() == Json::uintValue && value.isInt64()) {
        number = value.asInt64();
        return true;
    }
    return false;
}

/// What the agent compares typed contacts against; false if hashing failed.
bool PublishedHashes(const std::vector<std::string>& contacts, std::vector<std::string>& hashes)
{
    hashes.clear();
    for (const std::string& contact : contacts) {
        std::string hash = Sha256Hex(NormalizeContact(contact));
        if (hash.empty()) {
            return false;
        }
        hashes.push_back(std::move(hash));
    }
    return true;
}

Json::Value CommList(const std::vector<std::string>& hashes)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& hash : hashes) {
        list.append(hash);
    }
    return list;
}

} // namespace

VerificationApi::VerificationApi(Database& store, CodeLimits codeLimits, AuthThrottle& guessing,
                                 Courier& messenger)
    : database(store), limits(codeLimits), throttle(guessing), courier(messenger)
{
}

ApiResponse VerificationApi::Refusal(int status, const std::string& message)
{
    Json::Value body(Json::objectValue);
    body["error"] = message;
    return Answer(status, body);
}

ApiResponse VerificationApi::Handle(const ApiRequest& request)
{
    try {
        Poco::URI uri;
        Poco::URI::QueryParameters query;
        try {
            uri = Poco::URI(request.target);
            // Decoding the query finds broken escapes ("%zz") the parse let pass.
            query = uri.getQueryParameters();
        } catch (const Poco::SyntaxException&) {
            return Refusal(400, "malformed request target");
        }
        const std::string& path = uri.getPath();
        const bool list = path == kListPath;
        if (!list && path != kCodePath) {
            return Refusal(404, "no such resource");
        }
        const char* allowed = list ? "GET" : "POST";
        if (request.method != allowed) {
            ApiResponse response = Refusal(405, "method not allowed");
            response.headers.emplace_back("Allow", allowed);
            return response;
        }
        if (request.bodyTooLarge) {
            return Refusal(413, "request body too large");
        }

        std::string agent;
        if (!QueryAgent(query, agent)) {
            return Refusal(400, "exactly one non-empty agent_id parameter is required");
        }
        std::vector<std::string> contacts;
        std::chrono::seconds wait(0);
        ApiResponse response;
        std::vector<std::string> hashes;
        if (!throttle.Allows(request.client, AuthThrottle::Clock::now(), wait)) {
            response = Refusal(429, "too many failed authentications from this address");
            response.headers.emplace_back("Retry-After", std::to_string(wait.count()));
        } else if (const int refused = Authenticate(request, agent, contacts); refused != 0) {
            response = Refusal(refused, refused == 401 ? "unknown agent or wrong token"
                                                       : "internal error");
        } else if (contacts.empty()) {
            response = Refusal(409, "no contacts are registered for this agent");
        } else if (!PublishedHashes(contacts, hashes)) {
            response = Refusal(500, "internal error");
        } else if (list) {
            Json::Value body(Json::objectValue);
            body["comm_list"] = CommList(hashes);
            response = Answer(200, body);
        } else {
            response = IssueCode(agent, hashes, contacts, request.body);
        }
        response.agent = agent;
        return response;
    } catch (const std::exception& e) {
        Poco::Logger::get("verifyd.api").error("request failed: %s", std::string(e.what()));
        return Refusal(500, "internal error");
    }
}

int VerificationApi::Authenticate(const ApiRequest& request, const std::string& agent,
                                  std::vector<std::string>& contacts)
{
    const std::string presented = Sha256Hex(request.authToken.value_or(""));
    if (presented.empty()) {
        return 500;
    }
    // Without a token the lookup still runs: no answer may come sooner than
    // another and so tell something about the agent.
    const StoreResult found = database.Authenticate(agent, presented, contacts);
    if (found == StoreResult::Ok && request.authToken) {
        return 0;
    }
    if (found == StoreResult::Failed) {
        return 500;
    }
    throttle.Failed(request.client, AuthThrottle::Clock::now());
    return 401;
}

ApiResponse VerificationApi::IssueCode(const std::string& agent,
                                       const std::vector<std::string>& hashes,
                                       const std::vector<std::string>& contacts,
                                       const std::string& body)
{
    long long reference = 0;
    if (!RandomNum(body, reference)) {
        return Refusal(400, "the body must be a JSON object with an integer random_num");
    }
    std::chrono::seconds retryAfter(0);
    const auto nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
    switch (database.CountCodeRequest(agent, nowMs, limits, retryAfter)) {
    case StoreResult::Ok:
        break;
    case StoreResult::Limited: {
        ApiResponse response = Refusal(429, "too many code requests");
        response.headers.emplace_back("Retry-After", std::to_string(retryAfter.count()));
        return response;
    }
    case StoreResult::NotFound:
        return Refusal(401, "unknown agent or wrong token"); // removed a moment ago
    default:
        return Refusal(500, "internal error");
    }
    const std::string code = NewCode();
    if (code.empty()) {
        return Refusal(500, "internal error");
    }
    const std::string text = "Brackmoor verification code " + code + " for login reference " +
                             std::to_string(reference);
    if (!courier.DeliverToAll(agent, contacts, text)) {
        return Refusal(502, "the code could not be delivered");
    }
    Json::Value answer(Json::objectValue);
    answer["comm_list"] = CommList(hashes);
    answer["verification_code"] = code;
    return Answer(200, answer);
}

} // namespace brackmoor::verifyd
