#pragma once

#include <Poco/Data/Session.h>

#include "SqlDialect.h"

namespace brackmoor::verifyd {

/// One transaction on a session, rolled back unless committed.
///
/// In SQLite, writers begin with BEGIN IMMEDIATE, which takes the write lock
/// at once: two writers then queue instead of one failing when it upgrades a
/// read lock. PostgreSQL locks rows as it goes. Readers use a plain
/// transaction, which gives them one consistent view for several reads
/// (a snapshot under SQLite's WAL) without blocking writers.
///
/// Only used inside the database layer, whose operations catch the Poco
/// exceptions that these statements may throw.
class SqlTransaction {
public:
    enum class Mode {
        Read,  ///< several reads that must agree with each other
        Write, ///< changes
    };

    SqlTransaction(Poco::Data::Session& connection, const SqlDialect& dialect, Mode mode);
    ~SqlTransaction();

    SqlTransaction(const SqlTransaction&) = delete;
    SqlTransaction& operator=(const SqlTransaction&) = delete;

    /// Makes the changes durable; afterwards the destructor does nothing.
    void Commit();

private:
    Poco::Data::Session& session;
    const bool direct; ///< through the session's own calls rather than statements
    bool open = true;
};

} // namespace brackmoor::verifyd
