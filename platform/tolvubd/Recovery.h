#pragma once

#include "IBackEnd.h"
#include "Table.h"

#include <vector>

namespace tolvubd {

/// Whether a volume may still be held by who has left the table unfinished.
enum class Frozen { no, maybe };

/// Brings the machine to what the table says: takes away what an operation has left that didn't end, whether
/// it failed or its process died. What resists is logged and tried again by the next operation.
///
/// Returns the table without what is done, and without devices of which nothing is left.
Table tidyUp(Table table, Frozen frozen, const std::vector<IBackEnd*>& backEnds);

} // namespace tolvubd
