#include "SqlTransaction.h"

#include <Poco/Exception.h>

namespace brackmoor::verifyd {

using namespace Poco::Data::Keywords;

SqlTransaction::SqlTransaction(Poco::Data::Session& connection, Mode mode) : session(connection)
{
    session << (mode == Mode::Write ? "BEGIN IMMEDIATE" : "BEGIN"), now;
}

SqlTransaction::~SqlTransaction()
{
    if (!open) {
        return;
    }
    try {
        session << "ROLLBACK", now;
    } catch (const Poco::Exception&) {
        // SQLite has already rolled back when a statement failed hard; either
        // way nothing of this transaction is left.
    }
}

void SqlTransaction::Commit()
{
    session << "COMMIT", now;
    open = false;
}

} // namespace brackmoor::verifyd
