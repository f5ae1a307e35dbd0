#include "db/TransactionGuard.h"

#include <exception>

namespace agent::db {

TransactionGuard::~TransactionGuard() {
    try {
        runner.RunUpdate(commit ? "COMMIT;" : "ROLLBACK;", {});
    } catch (const std::exception& problem) {
        info::LogEntry(logger, info::level::error)
            << "Could not finalize schema update transaction: " << problem.what();
    }
}

} // namespace agent::db
