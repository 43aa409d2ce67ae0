#include "AdminCommand.h"

#include <ctime>

#include "Message.h"
#include "Secrets.h"
#include "brackmoor/Contact.h"

namespace brackmoor::verifyd {
namespace {

std::string UtcTime(long long seconds)
{
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    gmtime_r(&time, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

/// Normalises `typed` and checks it; "" and `why` set when it is no contact.
std::string ValidContact(const std::string& typed, std::string& why)
{
    const std::string contact = NormalizeContact(typed);
    if (KindOf(contact) == Message::Kind::Mail) {
        if (!IsValidMail(contact)) {
            why = "not a valid mail address: " + contact;
            return "";
        }
    } else if (!IsValidPhone(contact)) {
        why = "not a valid phone number in E.164 form (\"+\" and 8 to 15 digits): " + contact;
        return "";
    }
    return contact;
}

} // namespace

bool IsValidAgentId(const std::string& id)
{
    if (id.empty() || id.size() > 128) {
        return false;
    }
    for (char c : id) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-' || c == ':' ||
                        c == '@';
        if (!ok) {
            return false;
        }
    }
    return true;
}

AdminCommand::AdminCommand(Database& store, std::ostream& results, std::ostream& messages)
    : database(store), out(results), err(messages)
{
}

std::ostream& AdminCommand::Say()
{
    return err << "brackmoor-verifyd: ";
}

std::string AdminCommand::CheckUsage(const std::vector<std::string>& args)
{
    const std::string command = args.size() >= 2 ? args[0] + " " + args[1] : "";
    const std::size_t operands = args.size() >= 2 ? args.size() - 2 : 0;
    std::size_t wanted = 99;
    if (command == "agent add" || command == "agent remove" || command == "contact list") {
        wanted = 1;
    } else if (command == "agent list") {
        wanted = 0;
    } else if (command == "contact add" || command == "contact remove") {
        wanted = 2;
    }
    if (wanted == 99) {
        return "unknown command; expected agent add|remove|list or contact add|remove|list";
    }
    if (operands != wanted) {
        return command + " takes " + std::to_string(wanted) + " argument(s)";
    }
    return "";
}

AdminCommand::Status AdminCommand::Run(const std::vector<std::string>& args)
{
    const std::string usage = CheckUsage(args);
    if (!usage.empty()) {
        Say() << usage << "\n";
        return Misused;
    }
    const std::string command = args[0] + " " + args[1];
    if (command == "agent add") {
        return AddAgent(args[2]);
    }
    if (command == "agent remove") {
        return RemoveAgent(args[2]);
    }
    if (command == "agent list") {
        return ListAgents();
    }
    if (command == "contact add") {
        return AddContact(args[2], args[3]);
    }
    if (command == "contact remove") {
        return RemoveContact(args[2], args[3]);
    }
    return ListContacts(args[2]);
}

AdminCommand::Status AdminCommand::AddAgent(const std::string& id)
{
    if (!IsValidAgentId(id)) {
        Say() << "not a valid agent id (1 to 128 letters, digits and . _ - : @): " << id << "\n";
        return Refused;
    }
    const std::string token = NewToken();
    const std::string hash = Sha256Hex(token);
    if (token.empty() || hash.empty()) {
        Say() << "cannot make a token: the random source or the digest failed\n";
        return Refused;
    }
    const Status status = Report(database.AddAgent(id, hash), "agent " + id);
    if (status == Done) {
        out << token << "\n";
        Say() << "agent " << id
            << " added; its token is printed above and will not be shown again\n";
    }
    return status;
}

AdminCommand::Status AdminCommand::RemoveAgent(const std::string& id)
{
    const Status status = Report(database.RemoveAgent(id), "agent " + id);
    if (status == Done) {
        Say() << "agent " << id << " removed with its contacts\n";
    }
    return status;
}

AdminCommand::Status AdminCommand::ListAgents()
{
    std::vector<AgentSummary> agents;
    const Status status = Report(database.ListAgents(agents), "agents");
    for (const AgentSummary& agent : agents) {
        out << agent.id << "\t" << agent.contacts << "\t" << UtcTime(agent.createdAt) << "\n";
    }
    return status;
}

AdminCommand::Status AdminCommand::AddContact(const std::string& agent, const std::string& typed)
{
    std::string why;
    const std::string contact = ValidContact(typed, why);
    if (contact.empty()) {
        Say() << why << "\n";
        return Refused;
    }
    const Status status = Report(database.AddContact(agent, contact),
                                 "contact " + contact + " of agent " + agent);
    if (status == Done) {
        Say() << "added " << contact << " (" << KindName(KindOf(contact)) << ") to agent " << agent
            << "\n";
    }
    return status;
}

AdminCommand::Status AdminCommand::RemoveContact(const std::string& agent,
                                                 const std::string& typed)
{
    const std::string contact = NormalizeContact(typed);
    const Status status = Report(database.RemoveContact(agent, contact),
                                 "contact " + contact + " of agent " + agent);
    if (status == Done) {
        Say() << "removed " << contact << " from agent " << agent << "\n";
    }
    return status;
}

AdminCommand::Status AdminCommand::ListContacts(const std::string& agent)
{
    std::vector<std::string> contacts;
    const Status status = Report(database.ListContacts(agent, contacts), "agent " + agent);
    for (const std::string& contact : contacts) {
        out << contact << "\t" << KindName(KindOf(contact)) << "\t"
            << Sha256Hex(NormalizeContact(contact)) << "\n";
    }
    return status;
}

AdminCommand::Status AdminCommand::Report(StoreResult result, const std::string& subject)
{
    switch (result) {
    case StoreResult::Ok:
        return Done;
    case StoreResult::NotFound:
        Say() << subject << ": not found\n";
        break;
    case StoreResult::Duplicate:
        Say() << subject << ": already registered\n";
        break;
    case StoreResult::Full:
        Say() << subject << ": the agent already has the maximum of " << kMaxContactsPerAgent
              << " contacts\n";
        break;
    case StoreResult::Limited: // only code requests are limited
    case StoreResult::Failed:
        Say() << subject << ": database error\n";
        break;
    }
    return Refused;
}

} // namespace brackmoor::verifyd
