#include "seal/XfsLog.h"

#include "FileSystemImage.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>

namespace tolvubd {
namespace {

using test::FileSystemImage;

/// The report of xfs_logprint about the log: the position of its head, and whether it is clean.
struct LogReport {
    std::uint64_t head = 0;
    bool isClean = false;
};

LogReport reportOf(const FileSystemImage& image) {
    std::istringstream words(
        image.run("xfs_logprint -t $i 2>/dev/null | sed -n "
                  "\"s/.*log tail: [0-9]* head: \\([0-9]*\\) state: <\\(.*\\)>/\\1 \\2/p\""));
    LogReport report;
    std::string state;
    words >> report.head >> state;
    report.isClean = state == "CLEAN";
    return report;
}

std::uint64_t numberFrom(const FileSystemImage& image, const std::string& command) {
    return std::stoull(
        image.run("xfs_db -r -c 'sb 0' -c '" + command + "' $i | sed 's/.*= *//; s/ .*//; s/(.*//'"));
}

XfsLogPlace placeOf(const FileSystemImage& image) {
    const std::uint64_t block = numberFrom(image, "print logstart");
    const std::uint64_t bits = numberFrom(image, "print agblklog");
    const std::uint64_t groupBlocks = numberFrom(image, "print agblocks");
    const std::uint64_t count = numberFrom(image, "print logblocks");
    const std::uint64_t group = block >> bits;
    return {(group * groupBlocks + block - (group << bits)) * 4096, count * 8};
}

void expectTheTruth(const FileSystemImage& image, const XfsLogPlace& place, const std::string& what) {
    const LogReport report = reportOf(image);
    const std::optional<XfsLogHead> head = readXfsLogHead(openFile(image.path(), O_RDONLY), place);
    ASSERT_TRUE(head) << what;
    EXPECT_EQ(head->block, report.head) << what;
    EXPECT_EQ(head->isUnmounted, report.isClean) << what;
}

/// Smaller than mkfs.xfs supports officially.
constexpr const char* makeSmallLog = "mkfs.xfs --unsupported -q -l size=1500b";
/// Writes several mebibytes of log records.
constexpr const char* churn = "for turn in 1 2 3 4 5; do mkdir $r/d; "
                              "for n in $(seq 300); do for f in 1 2 3 4 5 6 7 8; do : > $r/d/$n.$f; done; "
                              "done; rm -r $r/d; sync -f $r; done; ";

TEST(XfsLog, EndsWhereItsOwnToolsSay) {
    const FileSystemImage image("mkfs.xfs -q");
    const XfsLogPlace place = placeOf(image);
    expectTheTruth(image, place, "made");
    image.run("m rw; echo 2 > $r/second; sync -f $r; echo 3 > $r/third; sync $r/third; stop");
    expectTheTruth(image, place, "stopped");
    image.run("m rw; u");
    expectTheTruth(image, place, "replayed");
}

TEST(XfsLog, IsARing) {
    const FileSystemImage image(makeSmallLog);
    const XfsLogPlace place = placeOf(image);
    std::uint64_t cycle = 1;
    for (int turn = 0; turn < 6; ++turn) {
        image.run(std::string("m rw; ") + churn +
                  (turn % 2 == 0 ? "u" : "sync -f $r; : > $r/x; sync $r/x; stop"));
        expectTheTruth(image, place, "turn " + std::to_string(turn));
        cycle = readXfsLogHead(openFile(image.path(), O_RDONLY), place)->cycle;
    }
    EXPECT_GT(cycle, 2);
}

} // namespace
} // namespace tolvubd
