#include "CowFile.h"

#include "ExpectedError.h"
#include "Uuid.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace tolvubd {
namespace {

constexpr std::uint64_t fileSize = 16'384;
constexpr const char* snapshot = "00112233-4455-6677-8899-aabbccddeeff";
constexpr const char* anotherSnapshot = "ffeeddcc-bbaa-9988-7766-554433221100";
constexpr std::size_t headerSize = 64;

std::uint64_t wordAt(const std::string& file, std::size_t offset) {
    std::uint64_t word = 0;
    std::memcpy(&word, file.data() + offset, sizeof word);
    return word;
}

class CowFile : public ::testing::Test {
protected:
    [[nodiscard]] const std::string& path() const { return file; }
    [[nodiscard]] std::string content() const { return agent::test::readFile(file); }
    [[nodiscard]] int errorOfOpening(std::uint64_t volumeSize) const {
        return test::errorOf([&] { const CowTable table(file, snapshot, volumeSize); });
    }

private:
    agent::test::TestDirectory directory;
    std::string file = (directory / ".tolvu").str();
};

TEST_F(CowFile, BeginsWithAHeaderAndAnEmptyTable) {
    makeCowFile(path(), snapshot, fileSize);
    std::string expected(fileSize, '\0');
    expected.replace(0, 2, "\xa8\x12", 2);
    expected.replace(32, 16, "\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16);
    expected[48] = 1;
    EXPECT_EQ(content(), expected);
    EXPECT_EQ(snapshotOf(path()), snapshot);
}

TEST_F(CowFile, TakesAnotherOnesPlace) {
    makeCowFile(path(), snapshot, fileSize);
    makeCowFile(path(), anotherSnapshot, fileSize / 2);
    EXPECT_EQ(snapshotOf(path()), anotherSnapshot);
    EXPECT_EQ(std::filesystem::file_size(path()), fileSize / 2);
}

TEST_F(CowFile, LeavesWhatIsNone) {
    agent::test::writeFile(path(), "somebody's");
    EXPECT_EQ(test::errorOf([&] { makeCowFile(path(), snapshot, fileSize); }), EEXIST);
    EXPECT_EQ(content(), "somebody's");
    removeCowFile(path(), snapshot);
    EXPECT_EQ(content(), "somebody's");
}

TEST_F(CowFile, IsRemovedOnlyForItsOwnSnapshot) {
    makeCowFile(path(), snapshot, fileSize);
    removeCowFile(path(), anotherSnapshot);
    EXPECT_TRUE(std::filesystem::exists(path()));
    removeCowFile(path(), snapshot);
    EXPECT_FALSE(std::filesystem::exists(path()));
    EXPECT_EQ(test::errorOf([&] { removeCowFile(path(), snapshot); }), 0);
}

TEST_F(CowFile, IsRemovedWhenUnfinished) {
    agent::test::writeFile(path() + ".new", "half");
    removeCowFile(path(), snapshot);
    EXPECT_FALSE(std::filesystem::exists(path() + ".new"));
}

TEST_F(CowFile, KeepsTheTableAndTheCount) {
    makeCowFile(path(), snapshot, fileSize);
    CowTable table(path(), snapshot, 3 * cow::unitSize);
    const std::array<std::uint64_t, 2> begin{1, 0};
    const std::array<std::uint64_t, 1> end{7};
    table.write(0, begin);
    table.write(2, end);
    EXPECT_EQ(wordAt(content(), 56), 0U) << "the count tells that the table is complete";
    table.finish(2);
    const std::string file = content();
    EXPECT_EQ(wordAt(file, 56), 2U);
    EXPECT_EQ(wordAt(file, 4096), 1U);
    EXPECT_EQ(wordAt(file, 4104), 0U);
    EXPECT_EQ(wordAt(file, 4112), 7U);
    EXPECT_EQ(file.find_first_not_of('\0', 4120), std::string::npos);
    EXPECT_EQ(snapshotOf(path()), snapshot);
}

TEST_F(CowFile, IsRefusedWhenTheTableDoesNotFit) {
    makeCowFile(path(), snapshot, cow::tableOffset + 16);
    EXPECT_EQ(errorOfOpening(2 * cow::unitSize), 0);
    EXPECT_EQ(errorOfOpening(2 * cow::unitSize + 1), EFBIG);
    EXPECT_EQ(errorOfOpening(~std::uint64_t{0} / 2), EFBIG);
}

TEST_F(CowFile, IsRefusedAtEveryTruncationOfItsHeader) {
    makeCowFile(path(), snapshot, fileSize);
    const std::string whole = content();
    for (std::size_t length = 0; length < headerSize; ++length) {
        agent::test::writeFile(path(), whole.substr(0, length));
        EXPECT_EQ(test::errorOf([&] { static_cast<void>(snapshotOf(path())); }), EBADMSG) << length;
    }
}

TEST_F(CowFile, IsRefusedWithAnyBitOfItsMagicOrUuidFlipped) {
    makeCowFile(path(), snapshot, fileSize);
    const std::string whole = content();
    for (std::size_t bit = 0; bit < std::size_t{8} * 48; ++bit) {
        const bool matters = bit / 8 < 4 || bit / 8 >= 32;
        std::string flipped = whole;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
        agent::test::writeFile(path(), flipped);
        EXPECT_EQ(errorOfOpening(cow::unitSize), matters ? EBADMSG : 0) << bit;
    }
}

TEST_F(CowFile, IsNoLinkAndNoDevice) {
    makeCowFile(path() + ".real", snapshot, fileSize);
    std::filesystem::create_symlink(path() + ".real", path());
    EXPECT_EQ(errorOfOpening(cow::unitSize), ELOOP);
    EXPECT_EQ(test::errorOf([] { static_cast<void>(snapshotOf("/dev/zero")); }), EBADMSG);
    EXPECT_EQ(test::errorOf([] { static_cast<void>(snapshotOf("/dev")); }), EBADMSG);
}

TEST(CowTable, HasOneWordForEachBegunUnit) {
    EXPECT_EQ(cow::tableEnd(0), 4096U);
    EXPECT_EQ(cow::tableEnd(1), 4104U);
    EXPECT_EQ(cow::tableEnd(4096), 4104U);
    EXPECT_EQ(cow::tableEnd(4097), 4112U);
    EXPECT_GT(cow::tableEnd(~std::uint64_t{0}), ~std::uint64_t{0} / 4096 * 8) << "no overflow";
}

} // namespace
} // namespace tolvubd
