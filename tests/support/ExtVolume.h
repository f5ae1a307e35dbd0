#pragma once

#include "info/BackupableVolume.h"
#include "support/ExtImage.h"
#include "support/TestDirectory.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace agent::test {

/// A mounted volume that reports the free space that the test sets.
class FreeSpaceVolume : public info::BackupableVolume {
public:
    FreeSpaceVolume(const info::VolumeDescription& description, std::uint64_t spaceFree)
        : BackupableVolume(description), spaceFree(spaceFree) {}

    [[nodiscard]] std::uint64_t getSpaceFree() const override { return spaceFree; }

private:
    std::uint64_t spaceFree;
};

/// A small ext volume, with a file in place of its snapshot's device. Each block, used or not, has content of
/// its own. The volume is larger than the part of an image that its checksum covers, and one run of used
/// blocks is larger than one chunk of the copy.
class ExtVolume {
    TestDirectory directory;

public:
    static constexpr std::uint32_t blockSize = 4096;
    static constexpr std::uint32_t blockCount = 3072;

    explicit ExtVolume(const std::string& uuid) : used(blockCount), snapshotPath(directory / "snapshot") {
        ExtImage ext({.blockCount = blockCount});
        for (const auto& [first, last] : {std::pair{0U, 2U}, {10U, 19U}, {100U, 1400U}, {3000U, 3070U}}) {
            for (std::uint32_t block = first; block <= last; ++block) {
                ext.setUsed(block);
                used[block] = true;
            }
        }
        image.resize(ext.volume.size);
        ext.volume.seek(0, SEEK_SET);
        ext.volume.read(image.data(), image.size());
        for (std::uint32_t block = 3; block < blockCount; ++block) { // after the file system's structures
            fill(block, 0);
        }
        store();
        description.uuid = uuid;
        description.device = "/dev/null";
        description.fileSystem = "ext4";
        description.mountPoints = {"/mnt"};
        description.mounted = true;
        description.size = image.size();
        description.blockSize = blockSize;
        description.blockCount = blockCount;
        description.sectorSize = 512;
    }

    /// The volume, as `description` describes it at this moment.
    [[nodiscard]] std::shared_ptr<info::BackupableVolume> volume() const {
        return std::make_shared<FreeSpaceVolume>(description, (blockCount - usedBlocks()) * blockSize);
    }

    [[nodiscard]] std::uint64_t usedBlocks() const {
        return static_cast<std::uint64_t>(std::count(used.begin(), used.end(), true));
    }

    /// Gives some blocks new content.
    void change(const std::vector<std::uint32_t>& blocks) {
        ++changes;
        for (const std::uint32_t block : blocks) {
            fill(block, changes);
        }
        store();
    }

    /// Which blocks of `other`, an image, hold the same data as this volume.
    [[nodiscard]] std::vector<bool> equalBlocks(const std::vector<std::uint8_t>& other) const {
        std::vector<bool> equal(blockCount);
        for (std::uint32_t block = 0; block < blockCount; ++block) {
            const auto first = static_cast<std::ptrdiff_t>(std::uint64_t{block} * blockSize);
            equal[block] =
                std::equal(image.begin() + first, image.begin() + first + blockSize, other.begin() + first);
        }
        return equal;
    }

    [[nodiscard]] bool holdsUsedBlocks(const std::vector<std::uint8_t>& other) const {
        const std::vector<bool> equal = equalBlocks(other);
        for (std::uint32_t block = 0; block < blockCount; ++block) {
            if (used[block] && !equal[block]) {
                return false;
            }
        }
        return true;
    }

    std::vector<bool> used;
    std::vector<std::uint8_t> image;
    info::VolumeDescription description;
    std::string snapshotPath;

private:
    void fill(std::uint32_t block, std::uint8_t version) {
        const std::uint64_t at = std::uint64_t{block} * blockSize;
        std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(at), blockSize, std::uint8_t{0x11});
        image[at] = static_cast<std::uint8_t>(block);
        image[at + 1] = static_cast<std::uint8_t>(block >> 8U);
        image[at + blockSize - 1] = version;
    }

    void store() const {
        writeFile(snapshotPath, {reinterpret_cast<const char*>(image.data()), image.size()});
    }

    std::uint8_t changes = 0;
};

} // namespace agent::test
