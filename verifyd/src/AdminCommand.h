#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Database.h"

namespace brackmoor::verifyd {

/// The administration subcommands, which edit the database directly (the
/// server may be running; SQLite serialises the writes):
///
///   agent add ID                 registers an agent and prints its new token, once
///   agent remove ID              removes an agent and its contacts
///   agent list                   ID, number of contacts, time added (UTC)
///   contact add AGENT CONTACT    registers a phone number (E.164) or mail address
///   contact remove AGENT CONTACT
///   contact list AGENT           contact, kind, published hash
///
/// Contacts are normalised (brackmoor/Contact.h) before they are checked,
/// stored or looked up, so "+49 151 1234-5678" and "+4915112345678" are the
/// same contact. Agent ids are 1 to 128 letters, digits and ". _ - : @".
class AdminCommand {
public:
    /// Exit statuses of Run.
    enum Status {
        Done = 0,    ///< the command did what it was asked
        Refused = 1, ///< invalid input, unknown or duplicate entry, or a database failure
        Misused = 2, ///< not a known command or the wrong number of arguments
    };

    AdminCommand(Database& store, std::ostream& results, std::ostream& messages);

    /// "" when `args` form a known subcommand, else a one-line usage error.
    /// Lets the caller refuse a typo before it opens the database.
    static std::string CheckUsage(const std::vector<std::string>& args);

    /// Runs one subcommand; results go to `out`, messages to `err`, each line
    /// starting "brackmoor-verifyd: ".
    Status Run(const std::vector<std::string>& args);

private:
    Status AddAgent(const std::string& id);
    Status RemoveAgent(const std::string& id);
    Status ListAgents();
    Status AddContact(const std::string& agent, const std::string& typed);
    Status RemoveContact(const std::string& agent, const std::string& typed);
    Status ListContacts(const std::string& agent);

    /// Starts a line on the message stream; every one names the program, as
    /// the program's other messages do.
    std::ostream& Say();

    /// Turns a database outcome into a status, with a message for failures.
    Status Report(StoreResult result, const std::string& subject);

    Database& database;
    std::ostream& out;
    std::ostream& err;
};

/// Whether `id` may name an agent (see AdminCommand).
bool IsValidAgentId(const std::string& id);

} // namespace brackmoor::verifyd
