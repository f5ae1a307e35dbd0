#pragma once

#include "core/backup/ISnapshotAttributes.h"

#include <utility>

namespace agent::core::backup {

/// See ISnapshotAttributes.
class SnapshotAttributes : public ISnapshotAttributes {
public:
    SnapshotAttributes(std::uint32_t snapshotMethod, std::vector<std::string> vssExclusions,
                       std::uint32_t flags)
        : snapshotMethod(snapshotMethod), vssExclusions(std::move(vssExclusions)), flags(flags) {}

    [[nodiscard]] std::uint32_t getSnapshotMethod() const override { return snapshotMethod; }
    [[nodiscard]] std::vector<std::string> getVSSExclusions() const override { return vssExclusions; }
    [[nodiscard]] std::uint32_t getFlags() const override { return flags; }

private:
    const std::uint32_t snapshotMethod;
    const std::vector<std::string> vssExclusions;
    const std::uint32_t flags;
};

} // namespace agent::core::backup
