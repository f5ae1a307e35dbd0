#include "zephane/zephaned/Commands.h"

#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace zephane {
namespace {

constexpr std::uint64_t size = 1 << 20;

class CommandsTest : public ::testing::Test {
protected:
    [[nodiscard]] std::string path(const std::string& name) const { return (directory / name).str(); }
    [[nodiscard]] ConfigFile file() const { return ConfigFile(path("zephaned.json")); }
    [[nodiscard]] std::vector<ImageConfig> images() const { return file().load().images; }
    void add(std::uint64_t volumeId, const std::string& image, std::optional<std::uint64_t> bytes) {
        Commands(file(), output).add({"host1/data", volumeId}, image, bytes);
    }
    std::string errorOf(const std::function<void(const Commands&)>& command) {
        try {
            command(Commands(file(), output));
        } catch (const ConfigError& error) {
            return error.what();
        }
        return "(none)";
    }
    std::string errorOfAdding(std::uint64_t volumeId, const std::string& backEnd,
                              std::optional<std::uint64_t> bytes = std::nullopt) {
        return errorOf(
            [&](const Commands& commands) { commands.add({"host1/data", volumeId}, backEnd, bytes); });
    }

    std::ostringstream output;

private:
    agent::test::TestDirectory directory;
};

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(CommandsTest, AddMakesTheFileAndShowsItsSecretOnce) {
    add(7, path("image"), size);
    struct stat status{};
    ASSERT_EQ(::stat(path("image").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(size));
    EXPECT_EQ(status.st_blocks, 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    const ImageConfig image = images().at(0);
    EXPECT_EQ(image.name, (wire::ImageName{"host1/data", 7}));
    EXPECT_EQ(image.secret.size(), 43U); // 256 bits, six per character
    EXPECT_TRUE(has(output.str(), "password       " + image.secret + "\n"));
    EXPECT_TRUE(has(output.str(), "target         127.0.0.1:25568\n"));
    EXPECT_TRUE(has(output.str(), "qualifiedName  host1/data\n"));
    EXPECT_TRUE(has(output.str(), "lun            7\n"));
}

TEST_F(CommandsTest, AddMakesADifferentSecretEachTime) {
    std::set<std::string> secrets;
    for (std::uint64_t id = 0; id < 20; ++id) {
        add(id, path("image" + std::to_string(id)), size);
        secrets.insert(images().back().secret);
    }
    EXPECT_EQ(secrets.size(), 20U);
}

TEST_F(CommandsTest, AddTakesWhatIsThere) {
    agent::test::writeFile(path("image"), "data");
    add(7, path("image"), std::nullopt);
    add(8, "nbd://host/x", std::nullopt);
    add(9, R"(["memory", "1G"])", std::nullopt);
    EXPECT_EQ(images().at(2).backEnd, BackEndSource(std::vector<std::string>{"memory", "1G"}));
}

TEST_F(CommandsTest, AddChangesNothingWhenItFails) {
    agent::test::writeFile(path("image"), "data");
    EXPECT_TRUE(has(errorOfAdding(7, path("none")), "No such file or directory"));
    EXPECT_TRUE(has(errorOfAdding(7, path("none")), "--size"));
    EXPECT_TRUE(has(errorOfAdding(7, "image", size), "neither a path"));
    EXPECT_TRUE(has(errorOfAdding(7, "nbd://host/x", size), "only a file can be made"));
    EXPECT_TRUE(has(errorOfAdding(7, path("image"), size), "File exists"));
    EXPECT_TRUE(has(errorOfAdding(7, path("none/image"), size), "No such file"));
    EXPECT_TRUE(has(errorOfAdding(7, "[1]"), "no list of texts"));
    EXPECT_EQ(agent::test::readFile(path("image")), "data");
    EXPECT_FALSE(file().exists());
    add(7, path("image"), std::nullopt);
    EXPECT_TRUE(has(errorOfAdding(7, path("other"), size), "another image of this path and volumeId"));
    EXPECT_TRUE(has(errorOfAdding(8, path("image")), "another image of this backend"));
    EXPECT_FALSE(std::filesystem::exists(path("other")));
    EXPECT_EQ(images().size(), 1U);
}

TEST_F(CommandsTest, AddLosesNothingWhenManyDoItAtOnce) {
    constexpr std::uint64_t editors = 8;
    constexpr std::uint64_t each = 5;
    std::vector<std::thread> threads;
    for (std::uint64_t editor = 0; editor < editors; ++editor) {
        threads.emplace_back([this, editor] {
            std::ostringstream mine;
            for (std::uint64_t id = editor * each; id < (editor + 1) * each; ++id) {
                Commands(file(), mine).add({"host1/data", id}, path("image" + std::to_string(id)), size);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(images().size(), editors * each);
}

TEST_F(CommandsTest, RemoveLeavesTheData) {
    add(7, path("image"), size);
    add(8, path("other"), size);
    output.str({});
    Commands(file(), output).remove({"host1/data", 7});
    EXPECT_TRUE(has(output.str(), "stays where it is: " + path("image")));
    EXPECT_TRUE(std::filesystem::exists(path("image")));
    ASSERT_EQ(images().size(), 1U);
    EXPECT_EQ(images().at(0).name.volumeId, 8U);
    const std::string error = errorOf([](const Commands& commands) { commands.remove({"host1/data", 7}); });
    EXPECT_TRUE(has(error, "there is no image host1/data 7"));
}

TEST_F(CommandsTest, ListShowsNoSecrets) {
    add(7, path("image"), size);
    add(8, R"(["S3", "secret-key=hidden"])", std::nullopt);
    output.str({});
    Commands(file(), output).list(false);
    Commands(file(), output).list(true);
    EXPECT_TRUE(has(output.str(), "host1/data 7  " + path("image")));
    EXPECT_TRUE(has(output.str(), R"("volumeId": 8)"));
    EXPECT_FALSE(has(output.str(), "hidden"));
    for (const ImageConfig& image : images()) {
        EXPECT_FALSE(has(output.str(), image.secret));
    }
}

TEST_F(CommandsTest, CheckTellsEverythingThatIsWrong) {
    add(7, path("image"), size);
    add(8, path("other"), size);
    EXPECT_EQ(errorOf([](const Commands& commands) { commands.check(); }), "(none)");
    std::filesystem::remove(path("image"));
    std::filesystem::resize_file(path("other"), 0);
    const std::string error = errorOf([](const Commands& commands) { commands.check(); });
    EXPECT_TRUE(has(error, "\nhost1/data 7: " + path("image") + ": No such file")) << error;
    EXPECT_TRUE(has(error, "\nhost1/data 8: " + path("other") + ": it is empty")) << error;
}

TEST_F(CommandsTest, CheckWarnsOfASecretThatCanBeGuessed) {
    Config config;
    config.images.push_back({{"host1/data", 7}, "easy", "nbd://host/x"});
    file().save(config);
    EXPECT_EQ(errorOf([](const Commands& commands) { commands.check(); }), "(none)");
    EXPECT_TRUE(has(output.str(), "warning: host1/data 7: the secret is short"));
    EXPECT_FALSE(has(output.str(), "easy"));
}

TEST(VolumeId, HasSixtyFourBits) {
    EXPECT_EQ(parseVolumeId("0"), 0U);
    EXPECT_EQ(parseVolumeId("18446744073709551615"), ~std::uint64_t{0});
    for (const std::string text : {"", "-1", "+1", " 1", "1 ", "0x1", "1.0", "18446744073709551616"}) {
        EXPECT_EQ(parseVolumeId(text), std::nullopt) << text;
    }
}

TEST(Size, IsBytesOrHasAUnit) {
    EXPECT_EQ(parseSize("1"), 1U);
    EXPECT_EQ(parseSize("4096"), 4096U);
    EXPECT_EQ(parseSize("1K"), 1024U);
    EXPECT_EQ(parseSize("500M"), 500U << 20U);
    EXPECT_EQ(parseSize("10G"), std::uint64_t{10} << 30U);
    EXPECT_EQ(parseSize("2T"), std::uint64_t{2} << 40U);
    EXPECT_EQ(parseSize("9223372036854775807"), 0x7FFFFFFFFFFFFFFFU);
}

TEST(Size, IsNothingElse) {
    for (const std::string text : {"", "0", "0G", "G", "-1", "+1", "1.5G", "10g", "10GB", "1 G", "G1", "0x10",
                                   "9223372036854775808", "8388608T", "99999999999999999999"}) {
        EXPECT_EQ(parseSize(text), std::nullopt) << text;
    }
}

} // namespace
} // namespace zephane
