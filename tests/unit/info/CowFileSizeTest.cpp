#include "info/CowFileSize.h"

#include "common/config/IConfigData.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>

namespace agent::info {
namespace {

using nlohmann::json;

constexpr std::uint64_t mebibyte = 1'048'576;
constexpr std::uint64_t gibibyte = 1024 * mebibyte;

/// A configuration with the values that the test sets. As in the real one, get() doesn't know these keys.
class StoredConfig : public IConfigData {
public:
    void get(const std::string& key, bool& /*out*/) const override { refuse(key); }
    void get(const std::string& key, unsigned long& /*out*/) const override { refuse(key); }
    void get(const std::string& key, std::string& /*out*/) const override { refuse(key); }
    [[nodiscard]] json dump() const override { return stored; }
    void set(const json& pairs) override { stored = pairs; }

private:
    [[noreturn]] static void refuse(const std::string& key) {
        throw std::invalid_argument("A configurable option with the key " + key + " does not exist!");
    }

    json stored = json::object();
};

class CowFileSizeTest : public testing::Test {
protected:
    std::uint64_t sizeFor(std::uint64_t volumeSize, const std::string& fileSystem = "ext4") {
        recorder.clear();
        return CowFileSize(config).getCowFileSizeMiB(recorder.logger, "0f1e", volumeSize, fileSystem);
    }

    std::uint64_t customSizeFor(const json& custom, std::uint64_t volumeSize,
                                const std::string& fileSystem = "ext4") {
        config.set({{"volumes.0f1e.cowFileSizeMiB", custom}});
        return sizeFor(volumeSize, fileSystem);
    }

    [[nodiscard]] bool saysClamped(const std::string& from, const std::string& to) const {
        return recorder.lines().back() ==
               test::RecordingLogger::Line{level::warning,
                                           "Invalid cow file size (" + from + ") Clamping to (" + to + ")"};
    }

    StoredConfig config;
    test::RecordingLogger recorder;
};

TEST_F(CowFileSizeTest, TenthOfTheVolumeWithinBounds) {
    EXPECT_EQ(sizeFor(10 * gibibyte), 1024U);
    EXPECT_EQ(sizeFor(10 * gibibyte + 10), 1025U); // rounded up to whole MiB
    EXPECT_EQ(sizeFor(50 * gibibyte), 5120U);
    EXPECT_EQ(sizeFor(200 * gibibyte), 10240U);
    EXPECT_EQ(sizeFor(std::numeric_limits<std::uint64_t>::max()), 10240U);
    EXPECT_TRUE(recorder.lines().empty());
}

TEST_F(CowFileSizeTest, SmallVolumeGetsHalfOfItself) {
    EXPECT_EQ(sizeFor(gibibyte), 512U);
    EXPECT_TRUE(saysClamped("1024", "512"));
    EXPECT_EQ(sizeFor(gibibyte + 2), 513U);
    EXPECT_EQ(sizeFor(2 * gibibyte), 1024U);
    EXPECT_TRUE(recorder.lines().empty());
}

TEST_F(CowFileSizeTest, NeverBelowTheSmallest) {
    EXPECT_EQ(sizeFor(100 * mebibyte), 100U);
    EXPECT_TRUE(saysClamped("1024", "100"));
    EXPECT_EQ(sizeFor(0), 100U);
    EXPECT_EQ(customSizeFor(50, 100 * gibibyte), 100U);
    EXPECT_TRUE(saysClamped("50", "100"));
    EXPECT_EQ(customSizeFor(100, 100 * gibibyte), 100U);
}

TEST_F(CowFileSizeTest, CustomSize) {
    EXPECT_EQ(customSizeFor(2048, 100 * gibibyte), 2048U);
    EXPECT_EQ(recorder.lines(),
              (std::vector<test::RecordingLogger::Line>{
                  {level::debug, "Found the volumes.0f1e.cowFileSizeMiB configuration option (2048)"}}));
    EXPECT_EQ(customSizeFor(40'000, 100 * gibibyte), 40'000U); // the default's limits don't apply
}

TEST_F(CowFileSizeTest, CustomSizeBeyondHalfTheVolume) {
    EXPECT_EQ(customSizeFor(60'000, 100 * gibibyte), 51'200U);
    EXPECT_TRUE(saysClamped("60000", "51200"));
    EXPECT_EQ(customSizeFor(~0ULL, 100 * gibibyte), 51'200U);
    EXPECT_TRUE(saysClamped("18446744073709551615", "51200"));
}

TEST_F(CowFileSizeTest, UnusableCustomSizeIsNone) {
    for (const json& custom : {json(0), json(-1), json("2048"), json(true), json(nullptr),
                               json::array({2048}), json(1e30), json(-0.5)}) {
        EXPECT_EQ(customSizeFor(custom, 10 * gibibyte), 1024U) << custom;
        EXPECT_TRUE(recorder.lines().empty()) << custom;
    }
}

TEST_F(CowFileSizeTest, SizeOfAnotherVolumeDoesNotCount) {
    config.set({{"volumes.0f1f.cowFileSizeMiB", 2048}, {"volumes.0f1e", {{"cowFileSizeMiB", 2048}}}});
    EXPECT_EQ(sizeFor(10 * gibibyte), 1024U);
}

TEST_F(CowFileSizeTest, ConfigurationThatIsNoObject) {
    config.set(json::array({1, 2}));
    EXPECT_EQ(sizeFor(10 * gibibyte), 1024U);
}

TEST_F(CowFileSizeTest, FileOnFatStaysBelow4GiB) {
    EXPECT_EQ(customSizeFor(8000, 100 * gibibyte, "vfat"), 4095U);
    EXPECT_EQ(customSizeFor(4095, 100 * gibibyte, "vfat"), 4095U);
    EXPECT_EQ(customSizeFor(4094, 100 * gibibyte, "vfat"), 4094U);
    EXPECT_EQ(customSizeFor(8000, 100 * gibibyte, "ntfs"), 8000U);
    config.set(json::object());
    EXPECT_EQ(sizeFor(100 * gibibyte, "vfat"), 4095U);
}

} // namespace
} // namespace agent::info
