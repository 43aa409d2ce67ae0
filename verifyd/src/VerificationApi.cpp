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

ApiResponse Error(int status, const std::string& message)
{
    Json::Value body(Json::objectValue);
    body["error"] = message;
    return Answer(status, body);
}

/// The single, non-empty agent_id of the query; false when missing or repeated.
bool QueryAgent(const Poco::URI& uri, std::string& agent)
{
    int found = 0;
    for (const auto& [name, value] : uri.getQueryParameters()) {
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

VerificationApi::VerificationApi(Database& store, RateLimiter& codeLimiter, Courier& messenger)
    : database(store), limiter(codeLimiter), courier(messenger)
{
}

ApiResponse VerificationApi::Handle(const ApiRequest& request)
{
    try {
        Poco::URI uri;
        try {
            uri = Poco::URI(request.target);
        } catch (const Poco::SyntaxException&) {
            return Error(400, "malformed request target");
        }
        const std::string& path = uri.getPath();
        const bool list = path == kListPath;
        if (!list && path != kCodePath) {
            return Error(404, "no such resource");
        }
        const char* allowed = list ? "GET" : "POST";
        if (request.method != allowed) {
            ApiResponse response = Error(405, "method not allowed");
            response.headers.emplace_back("Allow", allowed);
            return response;
        }
        if (request.bodyTooLarge) {
            return Error(413, "request body too large");
        }

        std::string agent;
        if (!QueryAgent(uri, agent)) {
            return Error(400, "exactly one non-empty agent_id parameter is required");
        }
        AgentRecord record;
        const int refused = Authenticate(request, agent, record);
        ApiResponse response;
        std::vector<std::string> hashes;
        if (refused != 0) {
            response = Error(refused, refused == 401 ? "unknown agent or wrong token"
                                                     : "internal error");
        } else if (record.contacts.empty()) {
            response = Error(409, "no contacts are registered for this agent");
        } else if (!PublishedHashes(record.contacts, hashes)) {
            response = Error(500, "internal error");
        } else if (list) {
            Json::Value body(Json::objectValue);
            body["comm_list"] = CommList(hashes);
            response = Answer(200, body);
        } else {
            response = IssueCode(agent, hashes, record, request.body);
        }
        response.agent = agent;
        return response;
    } catch (const std::exception& e) {
        Poco::Logger::get("verifyd.api").error("request failed: %s", std::string(e.what()));
        return Error(500, "internal error");
    }
}

int VerificationApi::Authenticate(const ApiRequest& request, const std::string& agent,
                                  AgentRecord& record)
{
    switch (database.FindAgent(agent, record)) {
    case StoreResult::Ok:
        break;
    case StoreResult::NotFound:
        return 401;
    default:
        return 500;
    }
    if (!request.authToken) {
        return 401;
    }
    const std::string presented = Sha256Hex(*request.authToken);
    if (presented.empty()) {
        return 500;
    }
    return SameSecret(presented, record.tokenHash) ? 0 : 401;
}

ApiResponse VerificationApi::IssueCode(const std::string& agent,
                                       const std::vector<std::string>& hashes,
                                       const AgentRecord& record, const std::string& body)
{
    long long reference = 0;
    if (!RandomNum(body, reference)) {
        return Error(400, "the body must be a JSON object with an integer random_num");
    }
    std::chrono::seconds retryAfter(0);
    if (!limiter.TryAcquire(agent, RateLimiter::Clock::now(), retryAfter)) {
        ApiResponse response = Error(429, "too many code requests");
        response.headers.emplace_back("Retry-After", std::to_string(retryAfter.count()));
        return response;
    }
    const std::string code = NewCode();
    if (code.empty()) {
        return Error(500, "internal error");
    }
    const std::string text = "Brackmoor verification code " + code + " for login reference " +
                             std::to_string(reference);
    if (!courier.DeliverToAll(agent, record.contacts, text)) {
        return Error(502, "the code could not be delivered");
    }
    Json::Value answer(Json::objectValue);
    answer["comm_list"] = CommList(hashes);
    answer["verification_code"] = code;
    return Answer(200, answer);
}

} // namespace brackmoor::verifyd
