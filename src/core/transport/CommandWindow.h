#pragma once

#include <cstdint>

namespace agent::core::iscsi {

/// How many commands are sent to a target at a time. The window begins at the largest size. When the target
/// refuses a command because its queue is full, the window shrinks to the number of commands in the queue.
/// Each transfer without a refusal lets the window grow again, because other initiators may have needed the
/// queue.
/// Owns:    nothing.
/// Threads: one at a time.
/// Fails:   never.
class CommandWindow {
public:
    static constexpr std::uint32_t maxCommands = 64;

    [[nodiscard]] std::uint32_t size() const { return commands; }
    /// To be called when the target has refused a command while it had `others` other commands.
    void shrink(std::uint32_t others);
    /// To be called after a transfer without a refusal.
    void grow();

private:
    std::uint32_t commands = maxCommands;
};

} // namespace agent::core::iscsi
