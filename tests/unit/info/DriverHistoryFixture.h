#pragma once

#include "unit/info/CowImage.h"
#include "unit/info/DriverFixture.h"

#include <fstream>
#include <functional>

namespace agent::info {

using test::CowImage;

inline constexpr std::uint64_t pieceBytes = std::uint64_t{8} << 20U;
inline constexpr std::uint64_t headerBytes = 4096;

/// A table with few bits set that differs for each entry and each seed.
inline std::vector<std::uint64_t> pattern(std::size_t entries, std::uint64_t seed) {
    std::vector<std::uint64_t> table(entries);
    for (std::size_t index = 0; index < entries; ++index) {
        table[index] = (index + seed) * 0x9e3779b97f4a7c15ULL & (index * seed + 0x1111111111111111ULL * seed);
    }
    return table;
}

inline std::string contentOf(const std::vector<std::uint64_t>& table, std::uint64_t version = 3) {
    return CowImage{.version = version, .changedBlocks = 7, .table = table}.bytes();
}

/// The bytes that this process has read, with any system call.
inline std::uint64_t bytesReadSoFar() {
    std::string name;
    std::uint64_t bytes = 0;
    std::ifstream("/proc/self/io") >> name >> bytes;
    return name == "rchar:" ? bytes : 0;
}

/// The device is in the snapshot state, with /.tolvu1 as its current CoW file. /.tolvu is closed and holds
/// the changed blocks.
class DriverHistoryTest : public test::DriverFixture {
protected:
    DriverHistoryTest() { addDevice(3, "/.tolvu1"); }

    bool make(bool zeroFill, std::uint64_t size = twoEntries) {
        recorder.clear();
        return controller.makeHistory(volumeOf("ext4", {mountPoint, "/other"}, size), zeroFill);
    }
    bool roll(std::uint64_t size = twoEntries) {
        recorder.clear();
        return controller.rollForward(volumeOf("ext4", {mountPoint, "/other"}, size));
    }

    [[nodiscard]] Lines problems() const { return linesAbove(level::info); }

    /// Runs `step` in a child process, where system calls may be denied. Returns what it returns.
    static bool inChild(const std::function<bool()>& step) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(step() ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        return status == 0;
    }

    static constexpr std::uint64_t twoEntries = 4097;

    const std::string currentCowFile = mountPoint + "/.tolvu1";
    const std::string closedCowFile = mountPoint + "/.tolvu";
    const std::string history = mountPoint + "/.tolvu.inc";
};

} // namespace agent::info
