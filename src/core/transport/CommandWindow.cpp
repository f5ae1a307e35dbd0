#include "core/transport/CommandWindow.h"

#include <algorithm>

namespace agent::core::iscsi {

void CommandWindow::shrink(std::uint32_t others) {
    commands = std::max(1U, std::min(commands, others));
}

void CommandWindow::grow() {
    constexpr std::uint32_t part = 8; // recovers soon after a refusal, but causes few new ones
    commands = std::min(commands + commands / part + 1, maxCommands);
}

} // namespace agent::core::iscsi
