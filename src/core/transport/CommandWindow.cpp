#include "core/transport/CommandWindow.h"

#include <algorithm>

namespace agent::core::iscsi {

void CommandWindow::shrink(std::uint32_t others) {
    commands = std::max(1U, std::min(commands, others));
}

void CommandWindow::grow() {
    commands = std::min(commands + 1, most);
}

} // namespace agent::core::iscsi
