#include "zephane/zephaned/BackEndSource.h"

#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace zephane {
namespace {

using Words = std::vector<std::string>;

TEST(BackEndSource, IsAFileAServerOrAnything) {
    EXPECT_EQ(
        engineArguments("/srv/a=b.img", true),
        (Words{"--filter=exportname", "file", "file=/srv/a=b.img", "exportname-strict=true", "exportname="}));
    EXPECT_EQ(engineArguments("nbd://host/x", true), (Words{"--filter=exportname", "nbd", "uri=nbd://host/x",
                                                            "exportname-strict=true", "exportname="}));
    EXPECT_EQ(engineArguments(Words{"--filter=error", "memory", "1G", "error=EIO"}, true),
              (Words{"--filter=exportname", "--filter=error", "memory", "1G", "error=EIO",
                     "exportname-strict=true", "exportname="}));
}

TEST(BackEndSource, CanNotWriteForReaders) {
    EXPECT_EQ(engineArguments("/srv/x", false).at(1), "--readonly");
}

TEST(BackEndSource, IsRightForAFileThatIsThere) {
    const agent::test::TestDirectory directory;
    const std::string file = (directory / "image").str();
    std::ofstream(file) << "data";
    EXPECT_EQ(problemOf(file), "");
    EXPECT_EQ(problemOf(Words{"--filter=cow", "file", file}), "");
    EXPECT_EQ(problemOf(Words{"file", "file=" + file, "cache=none"}), "");
}

TEST(BackEndSource, IsNotLookedIntoForOthers) {
    EXPECT_EQ(problemOf("nbd://host/x"), "");
    EXPECT_EQ(problemOf(Words{"S3", "bucket=b"}), "");
}

TEST(BackEndSource, SaysWhatIsWrongWithAFile) {
    const agent::test::TestDirectory directory;
    const std::string file = (directory / "image").str();
    EXPECT_NE(problemOf(file).find("No such file"), std::string::npos);
    std::ofstream(file).close();
    EXPECT_NE(problemOf(file).find("it is empty"), std::string::npos);
    EXPECT_NE(problemOf((directory / ".").str()).find("a file or a block device"), std::string::npos);
    EXPECT_NE(problemOf(Words{"file", "image"}).find("begins with /"), std::string::npos);
    EXPECT_NE(problemOf(Words{"file", "cache=none"}).find("begins with /"), std::string::npos);
}

TEST(BackEndSource, ShowsNoParameters) {
    EXPECT_EQ(describe(BackEndSource("/srv/x")), "/srv/x");
    EXPECT_EQ(describe(Words{"--filter=cow", "S3", "secret-key=hidden"}), "nbdkit --filter=cow S3 ...");
}

} // namespace
} // namespace zephane
