#pragma once

#include <string>

namespace brackmoor::verifyd {

/// What differs between the two database engines the service keeps its state
/// in: the embedded SQLite file of a single instance, or a PostgreSQL server
/// that several instances share. Statements are written once, with "?"
/// placeholders, and pass through Sql() on their way to the engine.
class SqlDialect {
public:
    enum class Engine {
        SQLite,     ///< one file, one instance (and its administration command)
        PostgreSQL, ///< a server shared by any number of instances
    };

    explicit SqlDialect(Engine engine) : kind(engine) {}

    bool IsPostgres() const { return kind == Engine::PostgreSQL; }

    /// The POCO Data connector's name.
    const char* Connector() const;

    /// `text` with its "?" placeholders as the engine numbers them ($1, $2, ...
    /// for PostgreSQL). The statements of this program hold no "?" in literals.
    std::string Sql(const std::string& text) const;

    /// Selects the id of an agent and, in PostgreSQL, locks its row until the
    /// transaction ends, so that concurrent writers for one agent (two code
    /// requests on two instances) take turns. SQLite's write lock covers the
    /// whole file already.
    const char* LockAgent() const;

private:
    Engine kind;
};

} // namespace brackmoor::verifyd
