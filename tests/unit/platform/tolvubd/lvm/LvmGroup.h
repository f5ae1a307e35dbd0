#pragma once

#include "FileAccess.h"
#include "lvm/LogicalVolume.h"
#include "lvm/VolumeSearch.h"
#include "os/FileDescriptor.h"
#include "support/LoopFileSystem.h"
#include "support/TestDirectory.h"

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <map>
#include <span>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace tolvubd::test {

inline std::string withoutDashes(std::string uuid) {
    std::erase(uuid, '-');
    return uuid;
}

/// A loop device for a sparse file. The kernel detaches it when the object is destroyed or the process ends.
/// Owns:    the loop device; the image file stays.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if it can't attach a loop device.
class Disk {
public:
    Disk(std::string file, std::uint64_t bytes) : image(std::move(file)) {
        agent::test::outputOf("truncate -s " + std::to_string(bytes) + " " + image);
        // Retries, since other processes take loop devices as well. A new loop device has no node in this
        // namespace.
        std::istringstream(agent::test::outputOf(
            "for turn in $(seq 20); do"
            " free=$(losetup --find | cut -d' ' -f1);"
            " [ -b $free ] || mknod $free b $(tr : ' ' < /sys/class/block/${free##*/}/dev);"
            " losetup --find --show " +
            image + " 2>&- && exit; done; exit 1")) >>
            node;
        user = openFile(node, O_RDWR);
        agent::test::outputOf("losetup --detach " + node); // takes effect when the last descriptor is closed
    }

    [[nodiscard]] const std::string& path() const { return node; }
    [[nodiscard]] dev_t number() const {
        struct stat status{};
        ::fstat(user.get(), &status);
        return status.st_rdev;
    }
    [[nodiscard]] std::string read(std::uint64_t offset, std::size_t length) const {
        std::string bytes(length, '\0');
        readAt(user, std::as_writable_bytes(std::span(bytes)), offset);
        return bytes;
    }
    void write(std::uint64_t offset, const std::string& bytes) const {
        writeAt(user, std::as_bytes(std::span(bytes)), offset);
        syncFile(user, node);
    }

private:
    std::string image;
    std::string node;
    os::FileDescriptor user;
};

using Disks = std::vector<Disk>;
/// The location of each extent of a volume: its offset in the volume, then its device and offset there, in
/// sectors.
using Extents = std::map<std::uint64_t, std::pair<dev_t, std::uint64_t>>;

/// Real physical volumes for LVM's own tools. The kernel isn't involved: no volume is ever activated.
class LvmGroup : public testing::Test {
public:
    static constexpr std::uint64_t diskSize = std::uint64_t{40} << 20U;

    LvmGroup() {
        std::string filter;
        for (int number = 0; number < 3; ++number) {
            disks.emplace_back(directory / std::to_string(number), diskSize);
            filter += "\"a|^" + disks.back().path() + "$|\", ";
        }
        agent::test::writeFile(directory / "lvm.conf",
                               "devices { use_devicesfile=0 filter=[" + filter +
                                   "\"r|.*|\"] obtain_device_list_from_udev=0"
                                   " external_device_info_source=\"none\" }\n"
                                   "backup { backup=0 archive=0 }\n"
                                   "global { event_activation=0 use_lvmpolld=0 }\n"
                                   "activation { udev_sync=0 udev_rules=0 monitoring=0 }\n");
    }

    /// Makes a volume group of all disks, by default with one metadata area on each.
    void makeGroup(const std::string& options = "-s 1M") const {
        tool("pvcreate", allDisks());
        tool("vgcreate", options + " vg " + allDisks());
    }
    void makeVolume(const std::string& name, int extents) const {
        tool("lvcreate", "-an -Zn -Wn -n " + name + " -l " + std::to_string(extents) + " vg");
    }
    /// Runs a tool and returns its standard output.
    std::string tool(const std::string& name,
                     const std::string& arguments) const { // NOLINT(modernize-use-nodiscard)
        const std::string where = directory.path();
        return agent::test::outputOf("LVM_SYSTEM_DIR=" + where + " LVM_SUPPRESS_FD_WARNINGS=1 " + name +
                                     " --driverloaded n -qq " + arguments + " 2>" + where +
                                     "/errors || { cat " + where + "/errors; exit 1; }");
    }

    [[nodiscard]] std::string allDisks() const {
        std::string paths;
        for (const Disk& disk : disks) {
            paths += " " + disk.path();
        }
        return paths;
    }
    [[nodiscard]] std::vector<dev_t> numbers() const {
        std::vector<dev_t> numbers;
        for (const Disk& disk : disks) {
            numbers.push_back(disk.number());
        }
        return numbers;
    }

    [[nodiscard]] std::string uuidOf(const std::string& volume) const {
        std::istringstream ids(tool("lvs", "--noheadings -o vg_uuid,lv_uuid vg/" + volume));
        std::string group;
        std::string id;
        ids >> group >> id;
        return "LVM-" + withoutDashes(group) + withoutDashes(id);
    }

    /// The extents as LVM's tools report them.
    [[nodiscard]] Extents reported(const std::string& volume) const {
        std::map<std::string, std::uint64_t> dataStarts;
        std::istringstream physical(tool("pvs", "--noheadings --units s --nosuffix -o pv_name,pe_start"));
        for (std::string path; physical >> path;) {
            physical >> dataStarts[path];
        }
        Extents extents;
        std::istringstream segments(
            tool("lvs", "--noheadings --units s --nosuffix -o vg_extent_size,seg_start_pe,"
                        "seg_pe_ranges vg/" +
                            volume));
        std::uint64_t size = 0;
        std::uint64_t start = 0;
        std::string range; // DEVICE:FIRST-LAST
        while (segments >> size >> start >> range) {
            const std::size_t colon = range.find(':');
            const std::string path = range.substr(0, colon);
            const auto disk =
                std::ranges::find_if(disks, [&](const Disk& candidate) { return candidate.path() == path; });
            std::uint64_t first = std::stoull(range.substr(colon + 1));
            const std::uint64_t last = std::stoull(range.substr(range.find('-') + 1));
            for (; first <= last; ++first, ++start) {
                extents[start * size] = {disk->number(), dataStarts.at(path) + first * size};
            }
        }
        return extents;
    }

    /// The extents of pieces that were read; empty if there are none. Adjacent pieces that should be one are
    /// a failure.
    static Extents extentsOf(const std::optional<std::vector<VolumePiece>>& pieces, std::uint64_t extent) {
        Extents extents;
        VolumePiece last;
        for (const VolumePiece& piece : pieces.value_or(std::vector<VolumePiece>())) {
            EXPECT_FALSE(piece.device == last.device && piece.offset == last.offset + last.length);
            last = piece;
            for (std::uint64_t done = 0; done < piece.length; done += extent) {
                extents[piece.start + done] = {piece.device, piece.offset + done};
            }
        }
        return extents;
    }

    /// Reads a volume and expects the extents that the tools report.
    void expectAsReported(const std::string& volume, std::uint64_t extent = 2048) const {
        const Extents expected = reported(volume);
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(extentsOf(readLogicalVolume(uuidOf(volume), numbers()), extent), expected);
    }

    agent::test::TestDirectory directory;
    Disks disks;
};

} // namespace tolvubd::test
