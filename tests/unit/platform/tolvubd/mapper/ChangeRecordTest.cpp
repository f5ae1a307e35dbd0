#include "mapper/ChangeRecord.h"

#include "CowFile.h"
#include "FileAccess.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <span>
#include <vector>

namespace tolvubd {
namespace {

constexpr const char* snapshot = "11111111-2222-3333-4444-555555555555";

std::vector<std::size_t> numbersOf(const std::vector<bool>& flags) {
    std::vector<std::size_t> numbers;
    for (std::size_t number = 0; number < flags.size(); ++number) {
        if (flags[number]) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

TEST(ChangedUnits, AreTheBlocksThatWereWritten) {
    const std::vector<bool> changed = changedUnits({false, true, false}, 8, {}, 12288);
    EXPECT_EQ(numbersOf(changed), (std::vector<std::size_t>{1}));
}

TEST(ChangedUnits, AreAllUnitsOfALargerBlock) {
    const std::vector<bool> changed = changedUnits({false, true}, 32, {}, 28672);
    EXPECT_EQ(numbersOf(changed), (std::vector<std::size_t>{4, 5, 6}));
}

TEST(ChangedUnits, AreThoseOfWhichNothingIsKnown) {
    EXPECT_EQ(numbersOf(changedUnits({}, 8, {}, 8193)), (std::vector<std::size_t>{0, 1, 2}));
    EXPECT_EQ(numbersOf(changedUnits({false}, 8, {}, 8192)), (std::vector<std::size_t>{1}));
}

TEST(ChangedUnits, AreThoseThatCameIntoUseWithoutAWrite) {
    const std::vector<bool> nothing(8);
    const std::vector<bool> changed =
        changedUnits(nothing, 8, {{4095, 2}, {20480, 4096}, {28672, 1 << 20}}, 32768);
    EXPECT_EQ(numbersOf(changed), (std::vector<std::size_t>{0, 1, 5, 7}));
}

/// More words than are written at once, and not a multiple of that.
TEST(WriteRecord, WritesAWordForEachUnitAndTheCount) {
    const agent::test::TestDirectory directory;
    const std::string path = std::string(directory.path()) + "/.tolvu";
    const std::uint64_t size = 300'001 * 4096ULL;
    makeCowFile(path, snapshot, cow::tableEnd(size));
    std::vector<bool> changed(300'001);
    changed[0] = changed[131'071] = changed[131'072] = changed[300'000] = true;

    writeRecord(path, snapshot, changed, size);

    const os::FileDescriptor file = openFile(path, O_RDONLY);
    std::vector<std::uint64_t> words(changed.size());
    ASSERT_EQ(readAt(file, std::as_writable_bytes(std::span(words)), cow::tableOffset), words.size() * 8);
    for (std::size_t unit = 0; unit < words.size(); ++unit) {
        ASSERT_EQ(words[unit], changed[unit] ? 1 : 0) << unit;
    }
    std::uint64_t count = 0;
    readAt(file, std::as_writable_bytes(std::span(&count, 1)), 56);
    EXPECT_EQ(count, 4U);
}

} // namespace
} // namespace tolvubd
