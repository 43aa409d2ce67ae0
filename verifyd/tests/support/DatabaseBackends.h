#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Database.h"

namespace brackmoor::verifyd {

/// A database engine the suites run against: its name and a maker of fresh,
/// empty databases (a SQLite file, or a new PostgreSQL database).
struct DatabaseBackend {
    std::string name;
    std::function<std::string()> location;
};

/// The database suites, run once per engine that a test binary instantiates
/// them for (INSTANTIATE_TEST_SUITE_P(..., DatabaseOn, ...)).
class DatabaseOn : public ::testing::TestWithParam<DatabaseBackend> {
protected:
    std::unique_ptr<Database> Open()
    {
        std::string error;
        std::unique_ptr<Database> database = Database::Open(GetParam().location(), 4, error);
        EXPECT_TRUE(database) << error;
        return database;
    }
};

inline std::string BackendName(const ::testing::TestParamInfo<DatabaseBackend>& info)
{
    return info.param.name;
}

} // namespace brackmoor::verifyd
