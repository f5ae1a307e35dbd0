#pragma once

#include "IBackEnd.h"
#include "Table.h"

#include <vector>

namespace tolvubd {

/// Whether the last session may have left a volume held.
enum class Held { no, maybe };

/// Makes the machine match the table: removes the leftovers of failed and interrupted operations. Logs the
/// leftovers that can't be removed; the next session tries again.
///
/// Returns the table without finished entries, and without devices whose captures are gone.
Table reconcileMachine(Table table, Held held, const std::vector<IBackEnd*>& backEnds);

} // namespace tolvubd
