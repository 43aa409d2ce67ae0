#include <atomic>
#include <thread>

#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/Session.h>
#include <gtest/gtest.h>

#include "Database.h"
#include "Schema.h"
#include "Secrets.h"
#include "TestSupport/TempDir.h"

namespace brackmoor::verifyd {

/// A new, empty database of the engine this binary tests: a SQLite file
/// here, a PostgreSQL database where VERIFYD_POSTGRES is defined.
std::string NewDatabase();

namespace {

using namespace Poco::Data::Keywords;

#ifndef VERIFYD_POSTGRES
TEST(SqliteSchema, MigratesAVersion1FileAndRefusesAFileFromANewerProgram)
{
    TestSupport::TempDir dir;
    const std::string path = dir.File("v.db");
    Poco::Data::SQLite::Connector::registerConnector();
    {
        Poco::Data::Session old("SQLite", path);
        old << "CREATE TABLE agents (id TEXT PRIMARY KEY NOT NULL, token_sha256 TEXT NOT NULL,"
               " created_at INTEGER NOT NULL)", now;
        old << "CREATE TABLE contacts (id INTEGER PRIMARY KEY, agent_id TEXT NOT NULL,"
               " contact TEXT NOT NULL, created_at INTEGER NOT NULL)", now;
        old << "INSERT INTO agents VALUES ('a', '" + Sha256Hex("t") + "', 0)", now;
        old << "PRAGMA user_version = 1", now;
    }
    std::string error;
    std::vector<std::string> contacts;
    ASSERT_TRUE(Database::Open(path, 2, error)) << error;
    EXPECT_EQ(Database::Open(path, 2, error)->Authenticate("a", Sha256Hex("t"), contacts),
              StoreResult::Ok) << "an up-to-date file is opened as it is, rows kept";

    Poco::Data::Session session("SQLite", path);
    int version = -1;
    session << "PRAGMA user_version", into(version), now;
    EXPECT_EQ(version, kSchemaVersion);

    session << "PRAGMA user_version = " + std::to_string(kSchemaVersion + 1), now;
    EXPECT_FALSE(Database::Open(path, 2, error));
    EXPECT_NE(error.find("newer"), std::string::npos) << error;
}
#endif

TEST(Database, KeepsContactsInOrderUpToTheLimitAndRemovesThemWithTheirAgent)
{
    std::string error;
    const std::unique_ptr<Database> db = Database::Open(NewDatabase(), 4, error);
    ASSERT_TRUE(db) << error;
    const std::string digest = Sha256Hex("token-a");
    ASSERT_EQ(db->AddAgent("a", digest), StoreResult::Ok);
    EXPECT_EQ(db->AddAgent("a", digest), StoreResult::Duplicate);
    for (int i = 0; i < kMaxContactsPerAgent; ++i) {
        ASSERT_EQ(db->AddContact("a", "+49151000000" + std::to_string(10 + i)), StoreResult::Ok);
    }
    EXPECT_EQ(db->AddContact("a", "late@example.org"), StoreResult::Full);
    ASSERT_EQ(db->RemoveContact("a", "+4915100000011"), StoreResult::Ok);

    std::vector<std::string> contacts;
    ASSERT_EQ(db->Authenticate("a", digest, contacts), StoreResult::Ok);
    EXPECT_EQ(contacts.size(), static_cast<std::size_t>(kMaxContactsPerAgent - 1));
    EXPECT_EQ(contacts[1], "+4915100000012") << "registration order, gaps closed";

    ASSERT_EQ(db->RemoveAgent("a"), StoreResult::Ok);
    EXPECT_EQ(db->Authenticate("a", digest, contacts), StoreResult::NotFound);
    ASSERT_EQ(db->AddAgent("a", digest), StoreResult::Ok);
    ASSERT_EQ(db->ListContacts("a", contacts), StoreResult::Ok);
    EXPECT_TRUE(contacts.empty()) << "contacts must go with their agent";
}

TEST(Database, TwoHandlesCountCodesOneAfterTheOther)
{
    // Two handles stand for two instances; the load test (verifyd_load) checks their contact edits.
    const std::string location = NewDatabase();
    std::string error;
    const std::unique_ptr<Database> handles[] = {Database::Open(location, 4, error), Database::Open(location, 4, error)};
    ASSERT_TRUE(handles[0] && handles[1]) << error;
    ASSERT_EQ(handles[0]->AddAgent("coded", "h"), StoreResult::Ok);
    std::atomic<int> admitted{0};
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&db = *handles[w % 2], &admitted] {
            for (int i = 0; i < 30; ++i) {
                std::chrono::seconds retry(0);
                const StoreResult counted = db.CountCodeRequest("coded", 1000000, {3, 20}, retry);
                EXPECT_TRUE(counted == StoreResult::Ok || counted == StoreResult::Limited);
                admitted += counted == StoreResult::Ok ? 1 : 0;
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(admitted.load(), 3) << "three a minute, whichever handle counts";
    EXPECT_EQ(handles[1]->CheckIntegrity(), "ok");
}

} // namespace

#ifndef VERIFYD_POSTGRES
std::string NewDatabase()
{
    static TestSupport::TempDir dir;
    static int files = 0;
    return dir.File("v" + std::to_string(++files) + ".db");
}
#endif

} // namespace brackmoor::verifyd
