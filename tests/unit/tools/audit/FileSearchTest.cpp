#include "tools/bek-audit/FileSearch.h"

#include "core/block/FileExtents.h"
#include "support/LoopFileSystem.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

namespace audit {
namespace {

constexpr std::uint32_t page = 4096;
constexpr std::chrono::seconds longest{60};

class FileSearchTest : public testing::TestWithParam<const char*> {
protected:
    agent::test::LoopFileSystem volume{GetParam()};
    agent::test::RecordingLogger log;
    Interrupt interrupt{longest};

    [[nodiscard]] std::uint64_t firstPageOf(const std::string& name) {
        agent::test::outputOf("sync -f " + volume.path(name));
        return agent::core::block::getFileExtents(log.logger, page, volume.path(name)).at(0).start;
    }
    FoundOwners ownersOf(const std::vector<std::uint64_t>& pages) {
        return findOwners(volume.path("."), pages, interrupt);
    }
};

TEST_P(FileSearchTest, NamesTheFileOfAPage) {
    agent::test::outputOf("mkdir -p " + volume.path("a/b"));
    agent::test::outputOf("dd if=/dev/urandom bs=64k count=2 status=none of=" + volume.path("a/b/file"));
    const std::uint64_t found = firstPageOf("a/b/file");
    const FoundOwners owners = ownersOf({0, found, found + 3});
    EXPECT_TRUE(owners.isComplete);
    EXPECT_EQ(owners.byPage.size(), 2U);
    EXPECT_EQ(owners.byPage.at(found).path, "/a/b/file");
    EXPECT_EQ(owners.byPage.at(found + 3).path, "/a/b/file");
    EXPECT_TRUE(owners.byPage.at(found).isWritten);
}

TEST_P(FileSearchTest, TellsWhatWasSetAsideAndNeverWritten) {
    agent::test::outputOf("fallocate -l 1M " + volume.path("aside"));
    agent::test::outputOf("touch " + volume.path("behind") + " && fallocate -n -l 1M " +
                          volume.path("behind"));
    for (const char* name : {"aside", "behind"}) {
        const std::uint64_t found = firstPageOf(name);
        const FoundOwners owners = ownersOf({found});
        EXPECT_EQ(owners.byPage.at(found).path, std::string("/") + name);
        EXPECT_FALSE(owners.byPage.at(found).isWritten);
    }
}

TEST_P(FileSearchTest, KnowsNoOwnerOfFreeSpace) {
    agent::test::outputOf("dd if=/dev/urandom bs=64k count=2 status=none of=" + volume.path("gone"));
    const std::uint64_t found = firstPageOf("gone");
    agent::test::outputOf("rm " + volume.path("gone") + " && sync -f " + volume.path(""));
    EXPECT_TRUE(ownersOf({found}).byPage.empty());
}

INSTANTIATE_TEST_SUITE_P(OnEach, FileSearchTest, testing::Values("mkfs.ext4 -q -b 4096", "mkfs.xfs -q -f"));

TEST(FileSearchFailures, AreToldOf) {
    EXPECT_THROW(findOwners("/nowhere", {1}, Interrupt(longest)), std::runtime_error);
    Interrupt tooLong(std::chrono::seconds(-1));
    tooLong.begin();
    EXPECT_THROW(findOwners("/usr", {1}, tooLong), std::runtime_error);
}

} // namespace
} // namespace audit
