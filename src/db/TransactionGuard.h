#pragma once

#include "db/QueryRunner.h"

namespace agent::db {

/// Ends a transaction at the end of a scope, on whatever way the scope is left.
/// Owns:    the open transaction; logger and runner must outlive it.
/// Threads: the thread of the runner.
/// Fails:   never; a transaction that can't be ended is logged, and undone when the connection closes.
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
