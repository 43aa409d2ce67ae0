#include <thread>

#include <Poco/Data/Session.h>
#include <gtest/gtest.h>

#include "Database.h"
#include "Schema.h"
#include "TestSupport/TempDir.h"

namespace brackmoor::verifyd {
namespace {

using namespace Poco::Data::Keywords;

std::unique_ptr<Database> OpenOrFail(const std::string& path)
{
    std::string error;
    std::unique_ptr<Database> database = Database::Open(path, 4, error);
    EXPECT_TRUE(database) << error;
    return database;
}

TEST(Database, CreatesTheSchemaInWalModeAndRefusesAFileFromANewerProgram)
{
    TestSupport::TempDir dir;
    const std::string path = dir.File("v.db");
    ASSERT_TRUE(OpenOrFail(path));
    ASSERT_TRUE(OpenOrFail(path)); // migrating an up-to-date file changes nothing

    Poco::Data::Session session("SQLite", path);
    int version = -1;
    std::string journal;
    session << "PRAGMA user_version", into(version), now;
    session << "PRAGMA journal_mode", into(journal), now;
    EXPECT_EQ(version, kSchemaVersion);
    EXPECT_EQ(journal, "wal");

    session << "PRAGMA user_version = " + std::to_string(kSchemaVersion + 1), now;
    std::string error;
    EXPECT_FALSE(Database::Open(path, 2, error));
    EXPECT_NE(error.find("newer"), std::string::npos) << error;
}

TEST(Database, KeepsContactsInOrderUpToTheLimitAndRemovesThemWithTheirAgent)
{
    TestSupport::TempDir dir;
    std::unique_ptr<Database> db = OpenOrFail(dir.File("v.db"));
    ASSERT_TRUE(db);
    ASSERT_EQ(db->AddAgent("a", "hash-a"), StoreResult::Ok);
    for (int i = 0; i < kMaxContactsPerAgent; ++i) {
        ASSERT_EQ(db->AddContact("a", "+49151000000" + std::to_string(10 + i)), StoreResult::Ok);
    }
    EXPECT_EQ(db->AddContact("a", "late@example.org"), StoreResult::Full);
    ASSERT_EQ(db->RemoveContact("a", "+4915100000011"), StoreResult::Ok);

    AgentRecord record;
    ASSERT_EQ(db->FindAgent("a", record), StoreResult::Ok);
    EXPECT_EQ(record.contacts.size(), static_cast<std::size_t>(kMaxContactsPerAgent - 1));
    EXPECT_EQ(record.contacts[1], "+4915100000012") << "registration order, gaps closed";

    ASSERT_EQ(db->RemoveAgent("a"), StoreResult::Ok);
    EXPECT_EQ(db->FindAgent("a", record), StoreResult::NotFound);
    ASSERT_EQ(db->AddAgent("a", "hash-new"), StoreResult::Ok);
    std::vector<std::string> contacts{"stale"};
    ASSERT_EQ(db->ListContacts("a", contacts), StoreResult::Ok);
    EXPECT_TRUE(contacts.empty()) << "contacts must go with their agent";
}

TEST(Database, TwoHandlesWritingAtOnceLoseNothing)
{
    // Two Database objects stand for the server and an administration command.
    TestSupport::TempDir dir;
    const std::unique_ptr<Database> handles[] = {OpenOrFail(dir.File("v.db")),
                                                 OpenOrFail(dir.File("v.db"))};
    ASSERT_TRUE(handles[0] && handles[1]);
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&db = *handles[w % 2], w] {
            const std::string agent = "agent-" + std::to_string(w);
            ASSERT_EQ(db.AddAgent(agent, "h"), StoreResult::Ok);
            for (int i = 0; i < 40; ++i) {
                const std::string contact = "+4915100000" + std::to_string(100 + i);
                ASSERT_EQ(db.AddContact(agent, contact), StoreResult::Ok);
                if (i % 2 == 1) {
                    ASSERT_EQ(db.RemoveContact(agent, contact), StoreResult::Ok);
                }
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    std::vector<AgentSummary> agents;
    ASSERT_EQ(handles[0]->ListAgents(agents), StoreResult::Ok);
    ASSERT_EQ(agents.size(), 4u);
    for (const AgentSummary& agent : agents) {
        EXPECT_EQ(agent.contacts, 20) << agent.id;
    }
    EXPECT_EQ(handles[1]->CheckIntegrity(), "ok");
}

} // namespace
} // namespace brackmoor::verifyd
