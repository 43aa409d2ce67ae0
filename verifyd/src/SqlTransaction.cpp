#include "SqlTransaction.h"

#include <Poco/Exception.h>

namespace brackmoor::verifyd {

using namespace Poco::Data::Keywords;

SqlTransaction::SqlTransaction(Poco::Data::Session& connection, const SqlDialect& dialect,
                               Mode mode)
    : session(connection), direct(dialect.IsPostgres())
{
    // POCO's PostgreSQL connector prepares and deallocates every statement it
    // runs, three round trips more than the session's own BEGIN and COMMIT.
    if (direct) {
        session.begin();
    } else {
        session << (mode == Mode::Write ? "BEGIN IMMEDIATE" : "BEGIN"), now;
    }
}

SqlTransaction::~SqlTransaction()
{
    if (!open) {
        return;
    }
    try {
        if (direct) {
            session.rollback();
        } else {
            session << "ROLLBACK", now;
        }
    } catch (const Poco::Exception&) {
        // The engine has already rolled back when a statement failed hard (or
        // the connection is gone); either way nothing of this transaction is
        // left, and the caller discards the session.
    }
}

void SqlTransaction::Commit()
{
    if (direct) {
        session.commit();
    } else {
        session << "COMMIT", now;
    }
    open = false;
}

} // namespace brackmoor::verifyd
