#include "tools/bek-audit/Comparison.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace audit {
namespace {

constexpr std::uint64_t page = 4096;
constexpr std::uint64_t volumeBytes = 64UL << 20U;

/// Each page ends with its number, except the wrong ones. Reading page `failAt` fails.
class Pages : public restore::IImage {
public:
    explicit Pages(std::vector<std::uint64_t> wrong, std::uint64_t failAt = volumeBytes)
        : wrong(std::move(wrong)), failAt(failAt) {}

    [[nodiscard]] std::uint64_t size() const override { return volumeBytes; }
    void read(std::span<std::byte> into, std::uint64_t offset) override {
        for (std::uint64_t at = 0; at < into.size(); at += page) {
            const std::uint64_t number = (offset + at) / page;
            if (number == failAt) {
                throw std::runtime_error("unreadable");
            }
            const bool isWrong = std::ranges::find(wrong, number) != wrong.end();
            const std::uint64_t content = isWrong ? ~number : number;
            std::memcpy(into.data() + at + page - sizeof content, &content, sizeof content);
        }
    }
    [[nodiscard]] std::string name() const override { return "pages"; }

private:
    std::vector<std::uint64_t> wrong;
    std::uint64_t failAt;
};

std::vector<ReaderPair> readersOf(std::size_t count, const std::vector<std::uint64_t>& wrong,
                                  std::uint64_t failAt = volumeBytes) {
    std::vector<ReaderPair> readers(count);
    for (ReaderPair& pair : readers) {
        pair.snapshot = std::make_unique<Pages>(std::vector<std::uint64_t>());
        pair.image = std::make_unique<Pages>(wrong, failAt);
    }
    return readers;
}

class ComparisonTest : public testing::TestWithParam<std::size_t> {
protected:
    Interrupt interrupt{std::chrono::seconds(60)};
    std::uint64_t done = 0;
    std::function<void(std::uint64_t)> progress = [this](std::uint64_t pages) { done = pages; };
};

TEST_P(ComparisonTest, FindsEachPageThatDiffers) {
    std::vector<std::uint64_t> pages;
    for (std::uint64_t number = 0; number < volumeBytes / page; number += 3) {
        pages.push_back(number);
    }
    const std::vector<std::uint64_t> wrong{0, 1, 3, 6000, 16383}; // page 1 isn't in the sample
    EXPECT_EQ(findDiffering(readersOf(GetParam(), wrong), pages, interrupt, progress),
              (std::vector<std::uint64_t>{0, 3, 6000, 16383}));
    EXPECT_EQ(done, pages.size());
}

TEST_P(ComparisonTest, FailsWhereAReadFails) {
    EXPECT_THROW(findDiffering(readersOf(GetParam(), {}, 9000), {1, 9000, 12000}, interrupt, progress),
                 std::runtime_error);
}

TEST_P(ComparisonTest, EndsWhenItIsTold) {
    Interrupt tooLong(std::chrono::seconds(-1));
    tooLong.begin();
    EXPECT_THROW(findDiffering(readersOf(GetParam(), {}), {1}, tooLong, progress), std::runtime_error);
}

TEST_P(ComparisonTest, HasNothingToDoWithoutPages) {
    EXPECT_TRUE(findDiffering(readersOf(GetParam(), {1}), {}, interrupt, progress).empty());
}

INSTANTIATE_TEST_SUITE_P(Readers, ComparisonTest, testing::Values(1, 4));

} // namespace
} // namespace audit
