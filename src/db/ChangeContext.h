#pragma once

#include <cstdint>

namespace agent::db {

/// Selects one of a volume's two positions in its change journal: the position that the last finished backup
/// has reached, or the position from which the next backup will start.
enum class ChangeContext : std::int32_t {
    Current = 0,
    Next = 1,
};

} // namespace agent::db
