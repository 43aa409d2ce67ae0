#include "ContactChurn.h"

#include <vector>

namespace verifyd_bench {

using brackmoor::verifyd::Database;
using brackmoor::verifyd::StoreResult;

ContactChurn::ContactChurn(const std::string& databasePath)
    : database(Database::Open(databasePath, 2, error))
{
}

ContactChurn::~ContactChurn()
{
    Stop();
}

void ContactChurn::Start()
{
    worker = std::thread([this] { Run(); });
}

void ContactChurn::Stop()
{
    stopping = true;
    if (worker.joinable()) {
        worker.join();
    }
}

void ContactChurn::Apply(bool ok)
{
    ++(ok ? operations : failures);
}

void ContactChurn::Run()
{
    // Agent k gets 30 contacts, of which the 15 odd ones are removed again.
    for (int k = 0; !stopping; ++k) {
        const std::string agent = "churn-" + std::to_string(k);
        Apply(database->AddAgent(agent, "not-a-token") == StoreResult::Ok);
        expected[agent];
        for (int j = 0; j < 30 && !stopping; ++j) {
            const std::string contact = "+49151" + std::to_string(1000000 + k * 100 + j);
            const bool added = database->AddContact(agent, contact) == StoreResult::Ok;
            Apply(added);
            if (added) {
                expected[agent].insert(contact);
            }
            if (j % 2 == 1 && added) {
                const bool removed = database->RemoveContact(agent, contact) == StoreResult::Ok;
                Apply(removed);
                if (removed) {
                    expected[agent].erase(contact);
                }
            }
        }
    }
}

std::string ContactChurn::Verify()
{
    for (const auto& [agent, contacts] : expected) {
        std::vector<std::string> stored;
        if (database->ListContacts(agent, stored) != StoreResult::Ok) {
            return agent + ": cannot be read back";
        }
        if (std::set<std::string>(stored.begin(), stored.end()) != contacts ||
            stored.size() != contacts.size()) {
            return agent + ": holds " + std::to_string(stored.size()) + " contacts, expected " +
                   std::to_string(contacts.size());
        }
    }
    return "";
}

} // namespace verifyd_bench
