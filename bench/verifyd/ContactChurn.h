#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "Database.h"

namespace verifyd_bench {

/// An administrator editing contacts while the service is under load: a
/// thread with its own database handle (as the administration command has)
/// that keeps adding contacts to a series of agents and removing every other
/// one again. It remembers what each agent should hold, so that Verify() can
/// tell whether the database lost or invented anything.
class ContactChurn {
public:
    /// Opens its own handle on `databasePath`; Error() says why when it cannot.
    explicit ContactChurn(const std::string& databasePath);
    ~ContactChurn();

    const std::string& Error() const { return error; }

    /// Starts editing in the background.
    void Start();
    /// Stops editing and waits for the thread.
    void Stop();

    /// Database operations that succeeded, and that failed.
    long Operations() const { return operations; }
    long Failures() const { return failures; }

    /// Compares every churned agent's contacts with what they should be;
    /// "" when all match, else the first difference.
    std::string Verify();

private:
    void Run();
    void Apply(bool ok);

    std::unique_ptr<brackmoor::verifyd::Database> database;
    std::map<std::string, std::set<std::string>> expected;
    std::atomic<bool> stopping{false};
    long operations = 0;
    long failures = 0;
    std::thread worker;
    std::string error;
};

} // namespace verifyd_bench
