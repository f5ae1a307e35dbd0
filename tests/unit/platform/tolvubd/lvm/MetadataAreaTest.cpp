#include "lvm/MetadataArea.h"

#include "ExpectedError.h"
#include "LvmGroup.h"
#include "lvm/Bytes.h"
#include "lvm/VolumeSearch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

namespace tolvubd {
namespace {

constexpr std::size_t area = 4096;
constexpr std::size_t data = std::size_t{1} << 20U;

/// The start of a physical volume, as a file that the test damages.
class Image {
public:
    Image(std::string path, std::string content) : name(std::move(path)), bytes(std::move(content)) {}

    /// The error of reading the volume with one byte changed.
    int errorWith(std::size_t offset, char byte) {
        std::swap(bytes[offset], byte);
        const int error = errorOf(bytes);
        std::swap(bytes[offset], byte);
        return error;
    }
    [[nodiscard]] int errorOf(const std::string& content) const {
        agent::test::writeFile(name, content);
        std::vector<lvm::OpenDevice> devices;
        devices.push_back({1, openFile(name, O_RDONLY)});
        return test::errorOf([&] { lvm::findLogicalVolume(uuid, devices); });
    }
    [[nodiscard]] char at(std::size_t offset) const { return bytes[offset]; }
    [[nodiscard]] const std::string& content() const { return bytes; }

private:
    std::string uuid = "LVM-" + std::string(64, 'a');
    std::string name;
    std::string bytes;
};

class MetadataArea : public test::LvmGroup {
protected:
    /// A number in the first metadata area's header, as LVM's tool prints it.
    [[nodiscard]] std::uint64_t headerNumber(const std::string& name) const {
        std::istringstream headers(tool("pvck", "--dump headers " + disks[0].path()));
        for (std::string word; headers >> word;) {
            if (word == "mda_header_1." + name) {
                std::uint64_t number = 0;
                headers >> number;
                return number;
            }
        }
        throw std::runtime_error("no " + name);
    }
    [[nodiscard]] std::size_t textEnd() const {
        return area + headerNumber("raw_locn[0].offset") + headerNumber("raw_locn[0].size");
    }
    /// The start of the first disk, up to the end of the current metadata text.
    [[nodiscard]] Image image() const { return {directory / "image", disks[0].read(0, textEnd())}; }
    [[nodiscard]] std::string saved(const test::Disk& disk) const { return disk.read(area, data - area); }
};

TEST_F(MetadataArea, NeverShowsAChangedByte) {
    makeGroup();
    makeVolume("volume", 50);
    Image image = this->image();
    ASSERT_EQ(image.errorOf(image.content()), 0);
    for (std::size_t offset = 512; offset < 1024; ++offset) { // the label's sector
        EXPECT_EQ(image.errorWith(offset, static_cast<char>(image.at(offset) ^ 4)), EBADMSG) << offset;
    }
    for (std::size_t offset = area; offset < area + 512; ++offset) {
        EXPECT_EQ(image.errorWith(offset, static_cast<char>(image.at(offset) ^ 4)), EBADMSG) << offset;
    }
    for (std::size_t offset = area + headerNumber("raw_locn[0].offset"); offset < image.content().size();
         ++offset) {
        EXPECT_EQ(image.errorWith(offset, static_cast<char>(image.at(offset) ^ 4)), EBADMSG) << offset;
    }
}

TEST_F(MetadataArea, IsWhole) {
    makeGroup();
    makeVolume("volume", 50);
    const Image image = this->image();
    const std::string& whole = image.content();
    for (std::size_t size = 0; size < whole.size(); size += size % 512 == 0 && size > area + 512 ? 1 : 64) {
        EXPECT_EQ(image.errorOf(whole.substr(0, size)), EBADMSG) << size;
    }
    EXPECT_EQ(image.errorOf(whole.substr(0, whole.size() - 1)), EBADMSG);
}

TEST_F(MetadataArea, GoesOnAtItsBegin) {
    tool("pvcreate", "--metadatasize 32k --dataalignment 4k" + allDisks());
    tool("vgcreate", "-s 1M vg" + allDisks());
    makeVolume("volume", 50);
    bool hasWrapped = false;
    for (int turn = 0; turn < 100 && !hasWrapped; ++turn) {
        tool("vgchange", "--addtag " + std::string(400, 'x') + std::to_string(turn) + " vg");
        expectAsReported("volume");
        hasWrapped =
            headerNumber("raw_locn[0].offset") + headerNumber("raw_locn[0].size") > headerNumber("size");
    }
    EXPECT_TRUE(hasWrapped);
}

TEST_F(MetadataArea, MayBeMissingOnSomeDevices) {
    tool("pvcreate", "--metadatacopies 0 " + disks[0].path() + " " + disks[2].path());
    tool("pvcreate", disks[1].path());
    tool("vgcreate", "-s 1M vg" + allDisks());
    makeVolume("volume", 100);
    expectAsReported("volume");
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuidOf("volume"), {disks[0].number()}); }), EBADMSG);
}

TEST_F(MetadataArea, MayBeIgnored) {
    makeGroup();
    makeVolume("volume", 5);
    tool("pvchange", "--metadataignore y " + disks[0].path());
    tool("lvextend", "-l 60 vg/volume");
    expectAsReported("volume");
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuidOf("volume"), {disks[0].number()}); }), EBADMSG);
}

TEST_F(MetadataArea, CountsWhereItIsNewest) {
    makeGroup();
    makeVolume("volume", 5);
    const std::vector<std::string> old = {saved(disks[0]), saved(disks[1])};
    tool("lvextend", "-l 60 vg/volume");
    const test::Extents expected = reported("volume");
    const std::string uuid = uuidOf("volume");
    for (const std::size_t number : {0U, 1U}) {
        const std::string current = saved(disks[number]);
        disks[number].write(area, old[number]);
        EXPECT_EQ(extentsOf(readLogicalVolume(uuid, numbers()), 2048), expected) << number;
        disks[number].write(area, current);
    }
}

TEST_F(MetadataArea, CountsOnlyIfNoneOfTheSameAgeDiffers) {
    makeGroup();
    makeVolume("volume", 5);
    const std::string uuid = uuidOf("volume");
    const std::vector<std::string> old = {saved(disks[0]), saved(disks[1]), saved(disks[2])};
    tool("lvextend", "-l 20 vg/volume");
    const std::string other = saved(disks[2]);
    for (std::size_t number = 0; number < disks.size(); ++number) {
        disks[number].write(area, old[number]);
    }
    tool("lvextend", "-l 30 vg/volume");
    expectAsReported("volume");
    disks[2].write(area, other);
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, numbers()); }), EBADMSG);
}

TEST_F(MetadataArea, HasASecondOneAtTheEnd) {
    tool("pvcreate", "--metadatacopies 2 " + disks[0].path());
    tool("vgcreate", "-s 1M vg " + disks[0].path());
    makeVolume("volume", 5);
    const std::string uuid = uuidOf("volume");
    const std::vector<dev_t> only = {disks[0].number()};
    const auto pieces = readLogicalVolume(uuid, only);
    ASSERT_TRUE(pieces);
    for (const std::size_t broken : {area, textEnd() - 100}) {
        const std::string sound = disks[0].read(broken, 16);
        disks[0].write(broken, std::string(16, 'x'));
        EXPECT_EQ(readLogicalVolume(uuid, only), pieces) << broken;
        disks[0].write(broken, sound);
    }
    disks[0].write(area, std::string(16, 'x'));
    const std::uint64_t second = diskSize - data;
    ASSERT_EQ(disks[0].read(second + 4, 6), " LVM2 ");
    disks[0].write(second, std::string(16, 'x'));
    EXPECT_EQ(test::errorOf([&] { readLogicalVolume(uuid, only); }), EBADMSG);
}

/// The checksums are corrected, as an attacker would do.
TEST_F(MetadataArea, IsBoundedWhateverItsHeaderSays) {
    makeGroup();
    const Image image = this->image();
    const auto little = [](std::uint64_t number, std::size_t width) {
        std::string bytes;
        for (; width > 0; --width, number >>= 8U) {
            bytes += static_cast<char>(number & 0xffU);
        }
        return bytes;
    };
    const std::uint64_t highest = ~std::uint64_t{0};
    for (const std::size_t field : {area + 24, area + 32, area + 40, area + 48}) {
        for (const std::uint64_t number : {std::uint64_t{1}, std::uint64_t{511}, std::uint64_t{1} << 20U,
                                           std::uint64_t{1} << 40U, highest >> 1U, highest - 511, highest}) {
            std::string bytes = image.content();
            bytes.replace(field, 8, little(number, 8));
            bytes.replace(area, 4, little(lvm::checksum(bytes.substr(area + 4, 508)), 4));
            EXPECT_EQ(image.errorOf(bytes), EBADMSG) << field << " " << number;
        }
    }
    for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{31}, std::uint64_t{473},
                                       std::uint64_t{511}, std::uint64_t{512}, highest >> 32U}) {
        std::string bytes = image.content();
        bytes.replace(512 + 20, 4, little(number, 4));
        bytes.replace(512 + 16, 4, little(lvm::checksum(bytes.substr(512 + 20, 492)), 4));
        EXPECT_EQ(image.errorOf(bytes), EBADMSG) << number;
    }
    for (const std::uint64_t number :
         {std::uint64_t{1}, std::uint64_t{4097}, highest >> 1U, highest - 511, highest}) {
        std::string bytes = image.content();
        bytes.replace(616, 8, little(number, 8)); // the offset of the metadata area in the label
        bytes.replace(512 + 16, 4, little(lvm::checksum(bytes.substr(512 + 20, 492)), 4));
        EXPECT_EQ(image.errorOf(bytes), EBADMSG) << number;
    }
}

} // namespace
} // namespace tolvubd
