#include "tools/restore/Restorer.h"

#include "support/TestDirectory.h"
#include "tools/restore/TargetChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <sys/stat.h>

namespace restore {
namespace {

constexpr std::uint64_t mebibyte = 1UL << 20U;
constexpr std::uint64_t volumeBytes = 24 * mebibyte;

/// An image in which each page is filled with its number.
class NumberedImage : public IImage {
public:
    [[nodiscard]] std::uint64_t size() const override { return volumeBytes; }
    void read(std::span<std::byte> into, std::uint64_t offset) override {
        if (offset + into.size() > failsFrom) {
            throw std::runtime_error("the target is gone");
        }
        for (std::size_t at = 0; at < into.size(); at += pageBytes) {
            std::ranges::fill(into.subspan(at, pageBytes), valueOf(offset + at));
        }
        reads.push_back({offset, into.size()});
        if (offset == 0 && beforeHead) {
            beforeHead();
        }
    }
    [[nodiscard]] std::string name() const override { return "numbers"; }

    /// Every eighth page is zero, and so is a range that is large enough for a hole.
    [[nodiscard]] std::byte valueOf(std::uint64_t offset) const {
        const std::uint64_t page = offset / pageBytes;
        const bool isEmpty = page % 8 == 5 || (offset >= 6 * mebibyte && offset < 7 * mebibyte);
        return isEmpty ? std::byte{0} : static_cast<std::byte>(page % 250 + salt);
    }

    std::uint64_t failsFrom = volumeBytes;
    std::uint64_t salt = 1;
    std::vector<ByteRange> reads;
    std::function<void()> beforeHead; ///< is called when the first page has been read, and not written yet
};

class RestorerTest : public testing::Test {
protected:
    RestorerTest() {
        plan.volumeBytes = volumeBytes;
        plan.used = {{0, mebibyte / 2},
                     {3 * mebibyte, 9 * mebibyte},
                     {13 * mebibyte, pageBytes},
                     {13 * mebibyte + 5 * pageBytes, 2 * pageBytes},
                     {20 * mebibyte, 3 * mebibyte}};
        plan.identity = 7;
        std::ofstream file(path);
        file << std::string(volumeBytes, '\xEE');
    }

    Restorer::Result restore(const std::optional<Marker>& from = std::nullopt) {
        TargetDevice target(path, true);
        Restorer restorer(image, plan, target, progress);
        Restorer::Result result = restorer.copy(from);
        if (afterCopy) {
            afterCopy();
        }
        restorer.compare(result);
        restorer.finish();
        return result;
    }

    std::optional<Marker> marker() { return TargetDevice(path, true).marker(); }

    std::string content() {
        std::string bytes(std::filesystem::file_size(path), '\0');
        std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }

    /// Expects that every used page equals the image's. An unused page equals it only if that is zero.
    void expectRestored() {
        const std::string bytes = content();
        ASSERT_EQ(bytes.size(), volumeBytes);
        for (std::uint64_t at = mebibyte; at < volumeBytes; at += pageBytes) {
            const bool isUsed = std::ranges::any_of(
                plan.used, [at](const ByteRange& range) { return range.begin <= at && at < range.end(); });
            const std::string page(pageBytes, static_cast<char>(image.valueOf(at)));
            EXPECT_EQ(bytes.compare(at, pageBytes, page) == 0, isUsed || image.valueOf(at) == std::byte{0})
                << "at " << at;
        }
        for (std::uint64_t at = 0; at < mebibyte; at += pageBytes) {
            EXPECT_EQ(bytes[at], static_cast<char>(image.valueOf(at))) << "at " << at;
        }
    }

    agent::test::TestDirectory directory;
    const std::string path = directory / "target";
    NumberedImage image;
    RestorePlan plan;
    Restorer::Progress progress = [](Restorer::Phase, std::uint64_t, std::uint64_t) {};
    std::function<void()> afterCopy;
};

TEST_F(RestorerTest, BringsWhatIsUsed) {
    const Restorer::Result result = restore();
    EXPECT_EQ(result.copied, 12 * mebibyte + 3 * pageBytes);
    EXPECT_EQ(result.compared, result.copied);
    EXPECT_GE(result.zeros, mebibyte);
    EXPECT_EQ(result.resumed, 0U);
    expectRestored();
}

TEST_F(RestorerTest, LeavesNoRoomForZerosAndForWhatIsUnused) {
    restore();
    struct ::stat status{};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_LE(static_cast<std::uint64_t>(status.st_blocks) * 512, 13 * mebibyte);
}

TEST_F(RestorerTest, IsNoFileSystemBeforeItIsWhole) {
    image.failsFrom = 10 * mebibyte;
    EXPECT_THROW(restore(), std::runtime_error);
    const std::string bytes = content();
    EXPECT_TRUE(marker());
    for (std::uint64_t at = Marker::areaBytes; at < mebibyte; at += pageBytes) {
        EXPECT_EQ(bytes[at], '\0') << "at " << at;
    }
}

TEST_F(RestorerTest, GoesOnWhereItWasInterrupted) {
    image.failsFrom = 21 * mebibyte;
    EXPECT_THROW(restore(), std::runtime_error);
    image.failsFrom = volumeBytes;
    const auto found = marker();
    ASSERT_TRUE(found);
    EXPECT_EQ(found->identity, plan.identity);
    const Restorer::Result result = restore(found);
    EXPECT_EQ(result.resumed, 9 * mebibyte + 3 * pageBytes);
    EXPECT_EQ(result.copied, 3 * mebibyte);
    EXPECT_EQ(result.rewritten, 0U);
    expectRestored();
}

TEST_F(RestorerTest, KeepsTheMarkerInTheFirstPageUntilTheEnd) {
    std::vector<std::uint64_t> places;
    image.beforeHead = [&] { places.push_back(marker()->place()); };
    restore();
    image.failsFrom = 21 * mebibyte;
    std::ofstream(path, std::ios::in) << std::string(mebibyte, '\xEE');
    EXPECT_THROW(restore(), std::runtime_error);
    image.failsFrom = volumeBytes;
    restore(marker()); // writes one marker more than an uninterrupted restore
    EXPECT_EQ(places, (std::vector<std::uint64_t>{0, 0}));
    expectRestored();
}

TEST_F(RestorerTest, DoesntCopyAgainWhatIsThere) {
    afterCopy = [] { throw std::runtime_error("ended before the comparison"); };
    EXPECT_THROW(restore(), std::runtime_error);
    afterCopy = nullptr;
    const Restorer::Result result = restore(marker());
    EXPECT_EQ(result.copied, 0U);
    EXPECT_EQ(result.resumed, 12 * mebibyte + 3 * pageBytes);
    EXPECT_EQ(result.compared, result.resumed);
    expectRestored();
}

TEST_F(RestorerTest, MendsWhatAnEarlierRunHasBroughtOfAnotherState) {
    afterCopy = [] { throw std::runtime_error("ended before the comparison"); };
    EXPECT_THROW(restore(), std::runtime_error);
    afterCopy = nullptr;
    image.salt = 2;
    const Restorer::Result result = restore(marker());
    EXPECT_GT(result.rewritten, 0U);
    expectRestored();
}

TEST_F(RestorerTest, FindsADeviceThatHoldsSomethingElse) {
    afterCopy = [&] {
        const os::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(::pwrite(file.get(), "x", 1, 22 * mebibyte), 1);
    };
    EXPECT_THROW(restore(), std::runtime_error);
    EXPECT_TRUE(marker()) << "it must not look like a volume";
}

TEST_F(RestorerTest, EndsWhenTheProgressSaysSo) {
    progress = [](Restorer::Phase, std::uint64_t done, std::uint64_t) {
        if (done > 4 * mebibyte) {
            throw std::runtime_error("enough");
        }
    };
    EXPECT_THROW(restore(), std::runtime_error);
    EXPECT_TRUE(marker());
}

TEST_F(RestorerTest, ReadsTogetherWhatIsCloseTogether) {
    restore();
    EXPECT_TRUE(std::ranges::any_of(image.reads, [](const ByteRange& read) {
        return read.begin == 13 * mebibyte && read.length == 7 * pageBytes;
    }));
}

TEST_F(RestorerTest, MakesAFileAsLongAsTheVolume) {
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    restore();
    EXPECT_EQ(content().size(), volumeBytes);
}

using TargetChecks = RestorerTest;

TEST_F(TargetChecks, FindAnInterruptedRunOfTheSameImageOnly) {
    image.failsFrom = 10 * mebibyte;
    EXPECT_THROW(restore(), std::runtime_error);
    const TargetDevice target(path, false);
    EXPECT_TRUE(examineTarget(target, plan, false).interrupted);
    plan.identity = 8;
    EXPECT_THROW(examineTarget(target, plan, false), std::runtime_error);
    EXPECT_FALSE(examineTarget(target, plan, true).interrupted);
}

TEST_F(TargetChecks, TakeADeviceOfNothing) {
    const TargetState state = examineTarget(TargetDevice(path, false), plan, false);
    EXPECT_EQ(state.content, "");
    EXPECT_FALSE(state.interrupted);
}

TEST_F(TargetChecks, RefuseWhatIsNoDevice) {
    EXPECT_THROW(TargetDevice(directory.path(), true), std::runtime_error);
    EXPECT_THROW(TargetDevice(directory / "none", true), std::runtime_error);
}

} // namespace
} // namespace restore
