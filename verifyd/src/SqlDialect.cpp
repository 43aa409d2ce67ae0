#include "SqlDialect.h"

namespace brackmoor::verifyd {

const char* SqlDialect::Connector() const
{
    return IsPostgres() ? "PostgreSQL" : "SQLite";
}

std::string SqlDialect::Sql(const std::string& text) const
{
    if (!IsPostgres()) {
        return text;
    }
    std::string numbered;
    int next = 0;
    for (char c : text) {
        if (c == '?') {
            numbered += "$" + std::to_string(++next);
        } else {
            numbered.push_back(c);
        }
    }
    return numbered;
}

const char* SqlDialect::LockAgent() const
{
    return IsPostgres() ? "SELECT id FROM agents WHERE id = $1 FOR UPDATE"
                        : "SELECT id FROM agents WHERE id = ?";
}

} // namespace brackmoor::verifyd
