#pragma once

#include <cstdint>

namespace agent::core::iscsi {

/// How many commands a target is given at a time. That is found out: as many as a large transfer has, until
/// the target refuses one for want of room; then as many as it had, and with each transfer that it takes
/// without a refusal some more, as the room may have been needed by others.
/// Threads: one at a time.
class CommandWindow {
public:
    static constexpr std::uint32_t most = 64;

    [[nodiscard]] std::uint32_t size() const { return commands; }
    /// A command was refused for want of room while the target had so many others.
    void shrink(std::uint32_t others);
    /// A transfer has come through without a refusal.
    void grow();

private:
    std::uint32_t commands = most;
};

} // namespace agent::core::iscsi
