#include "SqlTransaction.h"

#include <Poco/Exception.h>

namespace brackmoor::verifyd {

using namespace Poco::Data::Keywords;

SqlTransaction::SqlTransaction(Poco::Data::Session& connection, const SqlDialect& dialect,
                               Mode mode)
    : session(connection)
{
    session << (mode == Mode::Write ? dialect.BeginWrite() : "BEGIN"), now;
}

SqlTransaction::~SqlTransaction()
{
    if (!open) {
        return;
    }
    try {
        session << "ROLLBACK", now;
    } catch (const Poco::Exception&) {
        // The engine has already rolled back when a statement failed hard (or
        // the connection is gone); either way nothing of this transaction is
        // left, and the caller discards the session.
    }
}

void SqlTransaction::Commit()
{
    session << "COMMIT", now;
    open = false;
}

} // namespace brackmoor::verifyd
