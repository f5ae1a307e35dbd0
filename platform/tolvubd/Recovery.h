#pragma once

#include "IBackEnd.h"
#include "Table.h"

#include <vector>

namespace tolvubd {

/// Whether the last session may have left a volume held.
enum class Held { no, maybe };

/// Brings the machine to what the table says: removes what a failed or interrupted operation has left. What
/// can't be removed is logged, and the next session tries again.
///
/// Returns the table without finished entries, and without devices of which nothing is left.
Table reconcileMachine(Table table, Held held, const std::vector<IBackEnd*>& backEnds);

} // namespace tolvubd
