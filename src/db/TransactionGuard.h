#pragma once

#include "db/QueryRunner.h"

namespace agent::db {

/// Ends a transaction at the end of a scope, even if an exception leaves the scope.
/// Owns:    the open transaction; logger and runner must outlive it.
/// Threads: only the thread that uses the runner may use it.
/// Fails:   never; if the transaction can't be ended, the destructor logs that, and SQLite rolls it back when
///          the connection closes.
class TransactionGuard {
public:
    /// Commits at the end if `commit` is set, else rolls back.
    TransactionGuard(info::Logger& logger, QueryRunner& runner, bool commit) noexcept
        : logger(logger), runner(runner), commit(commit) {}
    TransactionGuard(const TransactionGuard&) = delete;
    TransactionGuard& operator=(const TransactionGuard&) = delete;
    ~TransactionGuard();

private:
    info::Logger& logger;
    QueryRunner& runner;
    bool commit;
};

} // namespace agent::db
