#include "tools/restore/check/TreeComparison.h"

#include "os/FileDescriptor.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace restore::check {
namespace {

namespace fs = std::filesystem;

/// Two directory trees with equal files, which a test then changes.
class TreeComparisonTest : public testing::Test {
protected:
    TreeComparisonTest() {
        for (const agent::test::TestDirectory* each : {&image, &snapshot}) {
            fs::create_directories((*each / "folder/below").str());
            agent::test::writeFile(*each / "file", std::string(3'000'000, 'x'));
            agent::test::writeFile(*each / "folder/below/file", "content");
            fs::create_symlink("file", (*each / "link").str());
            settle(*each);
        }
    }

    /// Sets the timestamps of all files.
    static void settle(const agent::test::TestDirectory& directory) {
        const std::array<::timespec, 2> times{::timespec{1, 2}, ::timespec{3, 4}};
        for (const auto& entry : fs::recursive_directory_iterator(directory.path().str())) {
            ::utimensat(AT_FDCWD, entry.path().c_str(), times.data(), AT_SYMLINK_NOFOLLOW);
        }
    }

    TreeDifferences compare() {
        settle(image);
        settle(snapshot);
        const os::FileDescriptor one(::open(image.path().str().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const os::FileDescriptor other(
            ::open(snapshot.path().str().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return compareTrees(one.get(), other.get());
    }

    agent::test::TestDirectory image;
    agent::test::TestDirectory snapshot;
};

TEST_F(TreeComparisonTest, EqualOnesAreCounted) {
    const TreeDifferences found = compare();
    EXPECT_EQ(found.differences, 0U);
    EXPECT_EQ(found.files, 5U);
}

TEST_F(TreeComparisonTest, AByteFarBehindIsFound) {
    std::string content(3'000'000, 'x');
    content[2'500'000] = 'y';
    agent::test::writeFile(image / "file", content);
    EXPECT_EQ(compare().first, std::vector<std::string>{"/file: its content differs at byte 2500000"});
}

TEST_F(TreeComparisonTest, WhatIsOnOneSideOnlyIsNamedInOrder) {
    agent::test::writeFile(image / "folder/new", "");
    fs::remove((image / "link").str());
    agent::test::writeFile(snapshot / "a", "");
    EXPECT_EQ(compare().first,
              (std::vector<std::string>{"/a: missing in the image", "/folder/new: only in the image",
                                        "/link: missing in the image"}));
}

TEST_F(TreeComparisonTest, KindsModesLinksAndSizesDiffer) {
    ::chmod((image / "folder").str().c_str(), 0700);
    ::chmod((snapshot / "folder").str().c_str(), 0755);
    fs::remove((image / "link").str());
    fs::create_symlink("elsewhere", (image / "link").str());
    fs::remove((image / "folder/below/file").str());
    fs::create_directory((image / "folder/below/file").str());
    agent::test::writeFile(image / "file", "short");
    EXPECT_EQ(compare().first, (std::vector<std::string>{
                                   "/file: its size differs", "/folder: its mode differs",
                                   "/folder/below/file: its kind differs", "/link: it leads elsewhere"}));
}

TEST_F(TreeComparisonTest, TheDriversFilesAreLeftOutInTheTopOnly) {
    agent::test::writeFile(image / ".tolvu", "garbage");
    agent::test::writeFile(snapshot / ".tolvu1", "more");
    EXPECT_EQ(compare().differences, 0U);
    agent::test::writeFile(image / "folder/.tolvu", "a file like others");
    EXPECT_EQ(compare().first, std::vector<std::string>{"/folder/.tolvu: only in the image"});
}

TEST_F(TreeComparisonTest, NoMoreThanTwentyAreNamedAndAllCounted) {
    for (int number = 0; number < 30; ++number) {
        agent::test::writeFile(image / ("new" + std::to_string(number)), "");
    }
    const TreeDifferences found = compare();
    EXPECT_EQ(found.differences, 30U);
    EXPECT_EQ(found.first.size(), 20U);
}

} // namespace
} // namespace restore::check
