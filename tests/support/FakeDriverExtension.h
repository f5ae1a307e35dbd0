#pragma once

#include "common/PosixError.h"
#include "info/IDriverExtension.h"

#include <map>

namespace agent::test {

/// A driver library whose extension functions return what the test sets, and nothing otherwise.
class FakeDriverExtension : public info::IDriverExtension {
public:
    [[nodiscard]] int checkSnapshot(std::int32_t minor) const override {
        const auto failure = failures.find(minor);
        return failure == failures.end() ? 0 : failure->second;
    }

    [[nodiscard]] std::vector<std::string> getDriverFiles() const override { return ownFiles; }

    [[nodiscard]] std::uint64_t getSnapshotSpace(const std::string& blockDevice) const override {
        if (roomFailure != 0) {
            throw PosixError("no room known of " + blockDevice, roomFailure);
        }
        return room.contains(blockDevice) ? room.at(blockDevice) : 0;
    }

    std::map<std::int32_t, int> failures; ///< errno values of failed snapshots, by minor number
    std::vector<std::string> ownFiles;
    std::map<std::string, std::uint64_t> room; ///< by block device
    int roomFailure = 0;                       ///< an errno value
};

} // namespace agent::test
