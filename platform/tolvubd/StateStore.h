#pragma once

#include "FileAccess.h"
#include "Table.h"

namespace tolvubd {

/// What comes of a turn while somebody else has his.
enum class Busy {
    wait,
    fail, ///< with EWOULDBLOCK
};

/// The table on disk. Whoever has the object has the driver for himself: other threads and processes wait.
class StateStore {
public:
    explicit StateStore(Busy busy = Busy::wait);

    /// What was last written. A text that can't be read counts as an empty table: a device that is lost costs
    /// a full comparison, a wrong one costs data.
    [[nodiscard]] Table load() const;
    /// When it throws, what was last written stays.
    void write(const Table& table) const;
    /// Brings back what the last write has replaced.
    void takeBack() const;

private:
    os::FileDescriptor lock;
};

/// The table as it is, for whoever only wants to look.
Table observeTable();

/// Whether the devices of the table are those of this run of the machine.
bool isLive(const Table& table);
/// Makes this run of the machine the table's.
void markLive(const Table& table);

} // namespace tolvubd
