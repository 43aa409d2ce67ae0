#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Database.h"

namespace brackmoor::verifyd {

/// A database engine the suites run against: a maker of fresh, empty
/// databases (SQLite files, or new PostgreSQL databases).
struct DatabaseBackend {
    std::string name;
    std::function<std::string()> location;
};

/// The database suites, run for every engine a test binary instantiates
/// them for (INSTANTIATE_TEST_SUITE_P(ENGINE, DatabaseOn, ...)).
class DatabaseOn : public ::testing::TestWithParam<DatabaseBackend> {
protected:
    std::unique_ptr<Database> Open(const std::string& location)
    {
        std::string error;
        std::unique_ptr<Database> database = Database::Open(location, 4, error);
        EXPECT_TRUE(database) << error;
        return database;
    }
};

} // namespace brackmoor::verifyd
