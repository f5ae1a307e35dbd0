#pragma once

#include "FileAccess.h"
#include "Table.h"

namespace tolvubd {

/// What to do when another session holds the driver's lock.
enum class Busy {
    wait,
    fail, ///< throw EWOULDBLOCK
};

/// The table on disk, with the driver's lock: while the object exists, other threads and processes wait.
///
/// Owns:    the lock.
/// Threads: one at a time.
/// Fails:   std::system_error.
class StateStore {
public:
    explicit StateStore(Busy busy = Busy::wait);

    /// The table as it was last written. A file that can't be parsed counts as an empty table, because a lost
    /// device only costs a full comparison, and a wrong one costs data.
    [[nodiscard]] Table load() const;
    /// When this throws, the previous table stays.
    void write(const Table& table) const;
    /// Restores the table that the last write has replaced.
    void restorePrevious() const;

private:
    os::FileDescriptor lock;
};

/// The table as it is now, read without the lock.
Table observeTable();

/// Whether the devices of the table belong to this run of the machine.
bool isLive(const Table& table);
/// Records that the table belongs to this run of the machine.
void markLive(const Table& table);

} // namespace tolvubd
