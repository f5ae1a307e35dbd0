#include "lvm/VolumeGroup.h"

#include "ExpectedError.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <sys/sysmacros.h>
#include <vector>

namespace tolvubd::lvm {
namespace {

using Pieces = std::vector<VolumePiece>;

/// The kernel's report, as the script beside this file writes it.
struct KernelReport {
    PhysicalDevices devices;
    std::map<std::string, std::optional<Pieces>>
        volumes; ///< std::nullopt unless all segments are linear on physical volumes
};

dev_t readNumber(std::istream& from) {
    unsigned major = 0;
    unsigned minor = 0;
    char colon = 0;
    from >> major >> colon >> minor;
    return makedev(major, minor);
}

/// Reads the script's output: physical volumes ("pv"), then each logical volume ("lv") followed by its
/// device-mapper segments.
KernelReport readKernelReport(const std::string& path) {
    KernelReport report;
    std::istringstream lines(agent::test::readFile(path));
    std::optional<Pieces>* volume = nullptr;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        words >> first >> second;
        if (first == "pv") {
            report.devices[second] = readNumber(words);
        } else if (first == "lv") {
            volume = &report.volumes.emplace(second.substr(36), Pieces()).first->second;
        } else if (*volume) {
            VolumePiece piece{std::stoull(first), std::stoull(second)};
            std::string type;
            words >> type;
            piece.device = readNumber(words);
            words >> piece.offset;
            const bool isKnown = std::ranges::any_of(
                report.devices, [&](const auto& device) { return device.second == piece.device; });
            if (type == "linear" && isKnown) {
                (*volume)->push_back(piece);
            } else {
                volume->reset();
            }
        }
    }
    return report;
}

class KernelTruth : public testing::TestWithParam<const char*> {};

TEST_P(KernelTruth, IsWhatTheTextSays) {
    const std::string path = std::string(LVM_PAIRS) + "/" + GetParam();
    const KernelReport report = readKernelReport(path + ".tables");
    const VolumeGroup group(agent::test::readFile(path + ".vg"));
    bool hasLinear = false;
    bool hasOther = false;
    for (const auto& [uuid, pieces] : report.volumes) {
        EXPECT_EQ(group.piecesOf(uuid, report.devices), pieces) << uuid;
        hasLinear = hasLinear || pieces;
        hasOther = hasOther || !pieces;
    }
    EXPECT_TRUE(hasLinear && hasOther);
}

INSTANTIATE_TEST_SUITE_P(Pairs, KernelTruth, testing::Values("kinds", "moving", "moved"));

/// A metadata text in which parts can be replaced.
class VolumeGroupText : public testing::Test {
protected:
    static constexpr const char* text =
        "vg { id = \"g-1\" seqno = 3 extent_size = 8\n"
        "physical_volumes { pv0 { id = \"a-0\" pe_start = 100 pe_count = 50 flags = [] }\n"
        "pv1 { id = \"b-1\" pe_start = 200 pe_count = 50 } }\n"
        "logical_volumes { one { id = \"v-1\" status = [\"READ\", \"VISIBLE\"] segment_count = 2\n"
        "segment2 { start_extent = 10 extent_count = 5 type = \"striped\" stripe_count = 1 stripes = "
        "[\"pv0\", 30] }\n"
        "segment1 { start_extent = 0 extent_count = 10 type = \"striped\" stripe_count = 1 stripes = "
        "[\"pv0\", 20] } }\n"
        "two { id = \"v-2\" status = [\"VISIBLE\"] segment_count = 1 segment1 { type = \"other\" name = "
        "\"x\" } } } }\n"
        "contents = \"Text Format Volume Group\" version = 1";
    const PhysicalDevices devices = {{"a0", 5}, {"b1", 6}};

    static std::string with(const std::string& old, const std::string& other) {
        std::string changed = text;
        const std::size_t place = changed.find(old);
        if (place == std::string::npos) {
            throw std::runtime_error(old);
        }
        return changed.replace(place, old.size(), other);
    }
    [[nodiscard]] std::optional<Pieces> piecesIn(const std::string& changed) const {
        return VolumeGroup(changed).piecesOf("v1", devices);
    }
    [[nodiscard]] bool isRefused(const std::string& old, const std::string& other) const {
        return test::errorOf([&] {
                   const VolumeGroup group(with(old, other));
                   EXPECT_EQ(group.uuid(), "g1");
                   EXPECT_EQ(group.sequence(), 3U);
                   EXPECT_TRUE(group.piecesOf("v1", devices));
               }) == EBADMSG;
    }
};

TEST_F(VolumeGroupText, IsReadInTheOrderOfTheVolume) {
    EXPECT_EQ(piecesIn(text), (Pieces{{0, 120, 5, 260}})); // both segments are contiguous
    EXPECT_EQ(piecesIn(with("\"pv0\", 30", "\"pv1\", 30")), (Pieces{{0, 80, 5, 260}, {80, 40, 6, 440}}));
    EXPECT_EQ(piecesIn(with("\"pv0\", 30", "\"pv0\", 31")), (Pieces{{0, 80, 5, 260}, {80, 40, 5, 348}}));
    const VolumeGroup group(text);
    EXPECT_EQ(group.uuid(), "g1");
    EXPECT_EQ(group.sequence(), 3U);
    EXPECT_EQ(group.piecesOf("v2", devices), std::nullopt);
    EXPECT_EQ(group.piecesOf("v3", devices), std::nullopt);
}

TEST_F(VolumeGroupText, HasNoPiecesOfWhatIsNotLinear) {
    const std::vector<std::pair<std::string, std::string>> changes = {
        {"\"striped\"", "\"linear\""},
        {"stripe_count = 1 stripes = [\"pv0\", 30]", "stripe_count = 2 stripes = [\"pv0\", 30, \"pv1\", 30]"},
        {"\"pv0\", 30", "\"pv9\", 30"},
        {"\"a-0\"", "\"c-0\""},
        {"flags = []", "flags = [\"MISSING\"]"},
        {"\"READ\", \"VISIBLE\"", "\"READ\""},
        {"name = \"x\"", "origin = \"one\""},
        {"name = \"x\"", "raids = [\"x\", \"one\"]"},
        {"logical_volumes {", "others {"}};
    for (const auto& [old, other] : changes) {
        EXPECT_EQ(piecesIn(with(old, other)), std::nullopt) << other;
    }
}

/// A wrong location of an extent would make the driver read other volumes' data.
TEST_F(VolumeGroupText, IsRefusedWhereItContradictsItself) {
    const std::vector<std::pair<std::string, std::string>> changes = {
        {"Text Format Volume Group", "Backup"},
        {"version = 1", "version = 2"},
        {"contents", "other {} contents"},
        {"id = \"g-1\"", ""},
        {"seqno = 3", "seqno = \"3\""},
        {"extent_size = 8", "extent_size = 0"},
        {"extent_size = 8", "extent_size = 281474976710656"},
        {"pe_start = 100", "pe_start = -100"},
        {"pe_start = 100", "pe_start = 18446744073709551615"},
        {"pe_count = 50", "pe_count = 34"},
        {"pe_count = 50", ""},
        {"physical_volumes {", "others {"},
        {"id = \"v-1\"", ""},
        {"segment_count = 2", "segment_count = 3"},
        {"segment_count = 2", ""},
        {"start_extent = 10", "start_extent = 11"},
        {"start_extent = 10", "start_extent = 9"},
        {"start_extent = 0", "start_extent = 1"},
        {"extent_count = 10", "extent_count = 0"},
        {"extent_count = 5", "extent_count = 281474976710656"},
        {"stripes = [\"pv0\", 30]", ""},
        {"stripes = [\"pv0\", 30]", "stripes = [30, \"pv0\"]"},
        {"stripes = [\"pv0\", 30]", "stripes = [\"pv0\"]"},
        {"\"pv0\", 30", "\"pv0\", 18446744073709551615"}};
    for (const auto& [old, other] : changes) {
        EXPECT_TRUE(isRefused(old, other)) << old << " -> " << other;
    }
}

} // namespace
} // namespace tolvubd::lvm
