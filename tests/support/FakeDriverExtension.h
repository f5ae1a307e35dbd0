#pragma once

#include "common/PosixError.h"
#include "info/IDriverExtension.h"

#include <map>

namespace agent::test {

/// A library that has nothing to tell beyond its seven functions, but for what a test gives it.
class FakeDriverExtension : public info::IDriverExtension {
public:
    [[nodiscard]] int checkSnapshot(std::int32_t minor) const override {
        const auto failure = failures.find(minor);
        return failure == failures.end() ? 0 : failure->second;
    }

    [[nodiscard]] std::vector<std::string> getOwnFiles() const override { return ownFiles; }

    [[nodiscard]] std::uint64_t getRoom(const std::string& blockDevice) const override {
        if (roomFailure != 0) {
            throw PosixError("no room known of " + blockDevice, roomFailure);
        }
        return room.contains(blockDevice) ? room.at(blockDevice) : 0;
    }

    std::map<std::int32_t, int> failures; ///< of snapshots, by minor: a value of `errno`
    std::vector<std::string> ownFiles;
    std::map<std::string, std::uint64_t> room; ///< by the block device
    int roomFailure = 0;                       ///< a value of `errno`
};

} // namespace agent::test
