#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::backup {

/// How a backup request wants its volumes to be snapshotted.
/// Owns:    copies of the request's values.
/// Threads: immutable; safe from any.
/// Fails:   never.
class ISnapshotAttributes {
public:
    virtual ~ISnapshotAttributes() = default;
    /// 0 if the request named the driver of this system, else 1.
    [[nodiscard]] virtual std::uint32_t getSnapshotMethod() const = 0;
    [[nodiscard]] virtual std::vector<std::string> getVSSExclusions() const = 0;
    [[nodiscard]] virtual std::uint32_t getFlags() const = 0;
};

} // namespace agent::core::backup
