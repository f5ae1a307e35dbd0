#pragma once

#include "unit/info/DriverFixture.h"

#include <array>

namespace agent::info {

using test::FakeDriver;

/// Lines that are logged whenever the table is read are left out (see DriverFixture::lines).
class DriverTransitionsTest : public test::DriverFixture {
protected:
    bool start() {
        recorder.clear();
        return controller.startSnapshot(volume, cowFileSize);
    }

    static Line library(const std::string& call) { return {level::info, FakeDriver::marker + call}; }

    [[nodiscard]] Lines prefixed(const Lines& rest) const {
        Lines all = {{level::debug, "start startSnapshot for volume: /dev/fake1 (fake1)"},
                     {level::info, std::string("SIZE ") + uuid + " 4097 ext4"},
                     {level::debug, "syncing..."},
                     {level::debug, "finished syncing..."}};
        all.insert(all.end(), rest.begin(), rest.end());
        return all;
    }

    [[nodiscard]] std::int32_t stateNow() const {
        return driver.all().empty() ? -1 : driver.all().front().state;
    }

    void hideTable() { test::writeFile(statusFiles.info, ""); }

    /// The errno values that a failing library call may leave. 0: it sets none.
    static constexpr std::array<int, 9> reasons{0, EPERM, ENOENT, EIO, EBUSY, ENODEV, EINVAL, ENOSPC, EINTR};

    const std::string a = mountPoint + "/.tolvu";
    const std::string b = mountPoint + "/.tolvu1";
    const Line unlinked{level::warning, "Failed to remove incremental reload script: Failed to unlink file"};
    const Line unknown{level::debug, std::string("Could not find device for ") + uuid};
    const Line deleting{level::debug, "deleting incremental reload script"};
    const Line byMinor{level::debug, "start getDeviceByMinor for minor: 0"};
    const Line notByMinor{level::debug, "No device for minor number found for minor 0"};
    const Line destroying{level::debug, "start destroyDevice for device: /dev/fake1"};
    const Line destroyingMinor{level::debug, "destroying minor: 0"};
    const Line notDestroyed{
        level::error, "Attempting to destroy existing driver entry, unable to destroy existing device."};
    const Line found{level::info,
                     "startSnapshot found existing driver entry for device /dev/fake1 with minor 0"};
    const Line forgotten{level::warning,
                         "Failed to remove incremental reload script: Failed to get device minor"};
};

} // namespace agent::info
