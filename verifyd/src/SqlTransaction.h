#pragma once

#include <Poco/Data/Session.h>

namespace brackmoor::verifyd {

/// One SQLite transaction on a session, rolled back unless committed.
///
/// Writers begin with BEGIN IMMEDIATE, which takes the write lock at once: two
/// writers (the server and the administration command, say) then queue on the
/// busy timeout instead of one failing when it tries to upgrade a read lock.
/// Readers use a deferred transaction, which gives them one consistent snapshot
/// under WAL without blocking writers.
///
/// Only used inside the database layer, whose operations catch the Poco
/// exceptions that these statements may throw.
class SqlTransaction {
public:
    enum class Mode {
        Read,  ///< BEGIN: a snapshot for several reads
        Write, ///< BEGIN IMMEDIATE: the write lock from the start
    };

    SqlTransaction(Poco::Data::Session& connection, Mode mode);
    ~SqlTransaction();

    SqlTransaction(const SqlTransaction&) = delete;
    SqlTransaction& operator=(const SqlTransaction&) = delete;

    /// Makes the changes durable; afterwards the destructor does nothing.
    void Commit();

private:
    Poco::Data::Session& session;
    bool open = true;
};

} // namespace brackmoor::verifyd
